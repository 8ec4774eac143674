#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/write.hpp>

#include "chromium/connection.hpp"
#include "chromium/pipe_transport.hpp"
#include "tests/chromium/connect_fixture.hpp"

namespace vision::chromium::test {
namespace {

using std::chrono::milliseconds;

const std::string closed = "PageClosedError: Target page, context or browser has been closed";
const std::string for_ever = "started = true, new Promise(() => {})";

// Something that the browser never answers, and has begun.
class Pending : public Running<json::value> {
 public:
  explicit Pending(ChromiumPage& page) : Running(page.evaluate(for_ever)) {
    while (value_of(page, "window.started === true") != "true") continue;
  }
};

TEST(Connection, TakesWhateverAPeerSends) {
  asio::local::stream_protocol::socket ours(loop()), peer(loop());
  asio::local::connect_pair(ours, peer);
  auto connection = Connection::open(loop().get_executor(), std::make_unique<PipeTransport>(std::move(ours)),
                                     std::chrono::minutes(5));
  auto session = connection->session("");
  const auto send = [&](const std::string& text) { asio::write(peer, asio::buffer(text.data(), text.size() + 1)); };
  EXPECT_EQ(error_of(session->call("A.b", {}, milliseconds(20))), "TimeoutError: A.b: Timeout 20ms exceeded");
  for (const char* noise : {R"({"id":1,"result":{"too":"late"}})", "rubbish", "", "[]", R"({"id":"x"})", R"({"id":-1})",
                            R"({"method":5,"params":[]})", R"({"method":"Page.x","sessionId":"none"})"}) {
    send(noise);
  }
  const std::string deep = R"({"id":5,"result":)" + std::string(300, '[') + std::string(300, ']') + "}";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"id":2,"result":{"v":"\ud800"}})", R"({"v": "\ufffd"})"},
      {R"({"id":3,"error":{"code":-32601,"message":"no such thing"}})", "ProtocolError: C.d: no such thing (-32601)"},
      {R"({"id":4})", "BrowserError: C.d: the browser's answer has no result"},
      {deep, "BrowserError: unreadable message from the browser: too deep"},
      {R"({"id":6,"error":{"code":-32001,"message":"Session not found"}})", closed},
  };
  for (const auto& [answer, expected] : cases) {
    Running<json::object> call(session->call("C.d"));
    send(answer);
    const std::string error = call.error();
    EXPECT_EQ(error == "no error" ? text::to_json(call.get()) : error, expected);
  }
  Running<json::object> last(session->call("C.d"));
  peer.close();
  EXPECT_EQ(last.error(), closed + " (the browser has exited or ended the connection)");
}

class Failures : public PageTest {};

TEST_F(Failures, AClosedPageFailsWhatIsUnderWay) {
  Pending pending(*page_);
  run(page_->close());
  EXPECT_EQ(pending.error(), closed);
  EXPECT_EQ(error_of(page_->screenshot({})), closed);
  EXPECT_EQ(error_of(page_->keyboard().press("a")), closed);
  run(page_->close());
}

TEST_F(Failures, APageThatClosesItselfFailsWhatIsUnderWay) {
  EXPECT_EQ(error_of(page_->evaluate("window.close(), new Promise(() => {})")), closed);
}

TEST_F(Failures, ACrashFailsWhatIsUnderWayAndANavigationHeals) {
  Pending pending(*page_);
  Running<void> crash(page_->navigate("chrome://crash"));
  EXPECT_EQ(pending.error(), "PageCrashedError: Page crashed");
  EXPECT_NE(crash.error(), "no error");
  EXPECT_EQ(error_of(page_->screenshot({})), "PageCrashedError: Page crashed");
  run(page_->navigate(page_url("<title>again</title>")));
  EXPECT_EQ(value_of(*page_, "document.title"), "\"again\"");
  EXPECT_FALSE(run(page_->screenshot({})).empty());
}

TEST_F(Failures, ACancelledOperationLeavesThePageUsable) {
  Pending pending(*page_);
  pending.cancel();
  EXPECT_THAT(pending.error(), testing::StartsWith("system_error"));
  asio::ip::tcp::acceptor silent(loop(), {asio::ip::address_v4::loopback(), 0});
  Running<void> load(page_->navigate("http://127.0.0.1:" + std::to_string(silent.local_endpoint().port())));
  asio::ip::tcp::socket browser(loop());
  run(silent.async_accept(browser, asio::use_awaitable));
  load.cancel();
  EXPECT_THAT(load.error(), testing::StartsWith("system_error"));
  open("<title>fine</title>");
  EXPECT_EQ(value_of(*page_, "document.title"), "\"fine\"");
}

TEST_F(Failures, NavigationErrorsNameTheUrl) {
  asio::ip::tcp::acceptor unused(loop(), {asio::ip::address_v4::loopback(), 0});
  const std::string url = "http://127.0.0.1:" + std::to_string(unused.local_endpoint().port()) + "/";
  unused.close();
  EXPECT_EQ(error_of(page_->navigate(url)), "NavigationError: cannot load " + url + ": net::ERR_CONNECTION_REFUSED");
  EXPECT_EQ(error_of(page_->navigate("no url")).substr(0, 28), "ProtocolError: Page.navigate");
  open("<p id=here>");
  run(page_->navigate(page_url("<p id=here>") + "#here"));  // no load event comes
  open("<script>location.href = '" + page_url("<title>second</title>") + "'</script>");
}

TEST(Launch, LeavesNothingBehind) {
  enum How { closing, destroying, killed, cancelled };
  for (const How how : {closing, destroying, killed, cancelled}) {
    const ProfilesHere profiles;
    Running<std::shared_ptr<Browser>> launching(launch());
    if (how == cancelled) {
      while (processes_with(profiles.path()).empty()) loop().run_one();
      launching.cancel();
      EXPECT_THAT(launching.error(), testing::StartsWith("system_error"));
      EXPECT_TRUE(profiles.empty());
      continue;
    }
    auto browser = launching.get();
    auto page = run(browser->new_page());
    Pending pending(*page);
    EXPECT_FALSE(profiles.empty());
    if (how == killed) {
      const auto all = processes_with(profiles.path());
      ::kill(*std::find_if(all.begin(), all.end(),
                           [](pid_t id) {
                             const auto line = vision::test::read_file("/proc/" + std::to_string(id) + "/cmdline");
                             return line.find("--type=") == std::string::npos && line.starts_with("/");
                           }),
             SIGKILL);
      EXPECT_EQ(pending.error(), closed + " (the browser has exited or ended the connection)");
      EXPECT_EQ(error_of(browser->pages()), closed + " (the browser has exited or ended the connection)");
    }
    if (how != destroying) run(browser->close());
    if (how == closing) run(browser->close());
    browser.reset();
    EXPECT_TRUE(profiles.empty()) << how;
    if (how != killed) {
      EXPECT_EQ(pending.error(), closed + " (closed by this program)");
    }
    EXPECT_NE(error_of(page->mouse().click(1, 1)), "no error");
  }
}

TEST(Launch, LeavesNothingBehindWhenThisProgramIsKilled) {
  const ProfilesHere profiles;
  const pid_t child = ::fork();
  if (child == 0) {
    asio::io_context own;
    asio::co_spawn(own, launch(), [](std::exception_ptr, std::shared_ptr<Browser>) { ::kill(::getpid(), SIGKILL); });
    own.run();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  while (!profiles.empty()) ::sched_yield();  // nobody is left who could tell
}

TEST(Launch, LeavesNothingBehindWhenTheContextGoesFirst) {
  const ProfilesHere profiles;
  asio::io_context own;
  std::shared_ptr<ChromiumPage> page;
  const auto use = [&]() -> asio::awaitable<void> {
    const auto browser = co_await launch();
    page = co_await browser->new_page();
    const auto same = std::exchange(page, nullptr);
    own.stop();
    co_await same->evaluate(for_ever);
  };
  {
    asio::io_context inner;
    asio::co_spawn(inner, use(), [](std::exception_ptr) {});
    while (!own.stopped()) inner.run_one();
  }
  EXPECT_TRUE(profiles.empty());
}

TEST(Launch, SaysWhatIsWrongWithTheBrowser) {
  const ProfilesHere profiles;
  const auto with = [](const std::string& executable) {
    LaunchOptions options;
    options.executable(executable);
    return error_of(launch(options));
  };
  EXPECT_EQ(with("/no/browser"), "BrowserError: no browser to launch: /no/browser is missing or not executable");
  EXPECT_THAT(with("no-browser"),
              testing::StartsWith("BrowserError: no browser to launch: there is no \"no-browser\""));
  EXPECT_THAT(with("/bin/ls"), testing::AllOf(testing::HasSubstr("/bin/ls did not start: Target page"),
                                              testing::HasSubstr("unrecognized option")));
  EXPECT_TRUE(profiles.empty());
}

TEST_F(Connect, UsesAPageOfSomeoneElseAndLeavesItAsItIs) {
  PageOptions small;
  small.viewport(500, 400).device_pixel_ratio(2);
  auto page = run(owner_->new_page(small));
  run(page->navigate(page_url("<title>theirs</title><body onclick=\"seen = confirm('?')\" style='height:300px'>")));
  for (const std::string& url :
       {"http://127.0.0.1:" + port_, "http://localhost:" + port_ + "/", "ws://127.0.0.1:" + port_ + path_}) {
    auto guest = run(connect(url));
    const auto listed = run(guest->pages());
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].target_id, page->target_id());
    EXPECT_EQ(listed[0].title, "theirs");
    auto theirs = run(guest->attach(listed[0].target_id));
    EXPECT_EQ(text::to_json(*theirs->viewport_size()), R"({"width": 500, "height": 400})");
    const Bytes shot = run(theirs->screenshot({}));
    EXPECT_EQ(shot.view().substr(16, 8), std::string("\0\0\1\xf4\0\0\1\x90", 8));
    run(theirs->mouse().click(50, 50));  // its owner answers the question
    EXPECT_EQ(value_of(*theirs, "seen"), "false");

    auto extra = run(guest->new_page());
    Pending pending(*extra);
    EXPECT_EQ(run(owner_->pages()).size(), 2u);
    run(guest->close());
    EXPECT_THAT(pending.error(), testing::StartsWith(closed));
    EXPECT_EQ(run(owner_->pages()).size(), 1u);
    EXPECT_EQ(value_of(*page, "[innerWidth, devicePixelRatio]"), "[500, 2]");
  }
}

TEST_F(Connect, SaysWhatIsWrong) {
  auto guest = run(connect("http://127.0.0.1:" + port_));
  EXPECT_EQ(error_of(guest->attach("nobody")),
            "BrowserError: no page with target id \"nobody\": No target with given id found");
  EXPECT_EQ(error_of(connect("http://10.0.0.1:9222")),
            "invalid_argument: browser URL \"http://10.0.0.1:9222\" leads to another machine; "
            "ConnectOptions::allow_remote permits that");
  EXPECT_THAT(error_of(connect("ws://127.0.0.1:" + port_ + "/devtools/browser/other")),
              testing::HasSubstr("handshake was declined"));
  asio::ip::tcp::acceptor silent(loop(), {asio::ip::address_v4::loopback(), 0});
  const std::string port = std::to_string(silent.local_endpoint().port());
  for (const std::string& url : {"http://127.0.0.1:" + port, "ws://127.0.0.1:" + port + "/devtools/browser/x"}) {
    Running<std::shared_ptr<Browser>> hanging(connect(url));
    asio::ip::tcp::socket reached(loop()), again(loop());
    run(silent.async_accept(reached, asio::use_awaitable));
    hanging.cancel();
    EXPECT_THAT(hanging.error(), testing::StartsWith("system_error"));
    EXPECT_EQ(error_of(connect(url, ConnectOptions().command_timeout(milliseconds(20)))),
              "TimeoutError: connect to " + url + ": Timeout 20ms exceeded");
    run(silent.async_accept(again, asio::use_awaitable));
  }
  silent.close();
  EXPECT_THAT(error_of(connect("http://127.0.0.1:" + port)), testing::HasSubstr("Connection refused"));
}

}  // namespace
}  // namespace vision::chromium::test
