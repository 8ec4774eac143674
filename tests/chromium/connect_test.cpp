#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>

#include "tests/chromium/browser_fixture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/wirein/observer.hpp"

namespace vision::chromium::test {
namespace {

using vision::test::proposal;
using vision::test::ScriptedModel;

// A browser with an open port, started here and used by somebody else, too.
class Connect : public testing::Test {
 protected:
  void SetUp() override {
    LaunchOptions options;
    options.argument("--remote-debugging-port=0");
    owner_ = run(launch(options));
    const auto profile = std::filesystem::directory_iterator(profiles_.path())->path();
    std::string port_file;
    while (std::count(port_file.begin(), port_file.end(), '\n') < 1) {
      port_file = vision::test::read_file(profile / "DevToolsActivePort");
    }
    port_ = port_file.substr(0, port_file.find('\n'));
    path_ = port_file.substr(port_file.find('\n') + 1);
  }
  void TearDown() override { run(owner_->close()); }
  std::string url() const { return "http://127.0.0.1:" + port_; }

  const ProfilesHere profiles_;
  std::shared_ptr<Browser> owner_;
  std::string port_, path_;
};

TEST_F(Connect, UsesAPageOfSomeoneElseAndLeavesItAsItIs) {
  auto page = run(owner_->new_page(PageOptions().viewport(500, 400).device_pixel_ratio(2)));
  run(page->navigate(page_url("<title>theirs</title><body onclick=\"seen = confirm('?')\" style='height:300px'>")));
  for (const std::string& where : {url(), "http://localhost:" + port_ + "/", "ws://127.0.0.1:" + port_ + path_}) {
    auto guest = run(connect(where));
    const auto listed = run(guest->pages());
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].target_id, page->target_id());
    EXPECT_EQ(listed[0].title, "theirs");
    auto theirs = run(guest->attach(listed[0].target_id));
    EXPECT_EQ(text::to_json(*theirs->viewport_size()), R"({"width": 500, "height": 400})");
    run(theirs->mouse().click(50, 50));  // its owner answers the question
    EXPECT_EQ(value_of(*theirs, "seen"), "false");

    auto extra = run(guest->new_page());
    Pending pending(*extra);
    EXPECT_EQ(run(owner_->pages()).size(), 2u);
    run(guest->close());
    EXPECT_THAT(pending.error(), testing::StartsWith(closed));
    EXPECT_EQ(run(owner_->pages()).size(), 1u);
  }
}

// Missions drive the page of somebody else's browser, one after the other, while an
// observation of each runs on a connection of its own.
TEST_F(Connect, DrivesAndObservesAPageOfSomeoneElseAtOnce) {
  vision::test::TestRegistry::instance();
  const vision::test::ScopedEnv log("KX_VISION_SHADOW_LOG", "/dev/null");
  auto page = run(owner_->new_page(PageOptions().viewport(500, 400).device_pixel_ratio(2)));
  run(page->navigate(page_url("<body style='height:3000px' onclick=\"document.title += event.clientX + ' '\">")));
  auto driver = run(connect(url())), observer = run(connect(url()));
  auto driven = run(driver->attach(page->target_id())), observed = run(observer->attach(page->target_id()));
  auto acting = std::make_shared<ScriptedModel>(), watching = std::make_shared<ScriptedModel>();
  acting->answer(proposal("click", 0.9, R"(, "x_ratio": 0.1, "y_ratio": 0.5)"), 0.05)
      .answer(proposal("click", 0.9, R"(, "x_ratio": 0.3, "y_ratio": 0.5)"), 0.05)
      .answer(proposal("declare_success", 0.9), 0);
  watching->answer(proposal("scroll", 0.8), 0.05).answer(proposal("wait", 0.8), 0.05);
  VisionClient driving(acting), seeing(watching);
  ActLoopOptions mission({{"phase", 2}}, "driven");
  mission.vision(driving);
  ObserverOptions observation({{"phase", 2}}, "observed");
  observation.vision(seeing);

  Running<std::string> verdict(verdict_of(*driven, mission));
  for (const char* action : {"scroll", "wait"}) {
    EXPECT_EQ(run(observe_only(*observed, observation)).at("vision").at("action"), action);
  }
  EXPECT_EQ(verdict.get(), "declare_success: because");
  // Each saw and did its own, and the owner finds nothing else changed.
  EXPECT_EQ(value_of(*page, "[document.title, innerWidth, devicePixelRatio, scrollY]"), R"(["50150", 500, 2, 0])");
  run(driver->close());
  run(observer->close());
  EXPECT_EQ(run(owner_->pages()).size(), 1u);
  EXPECT_EQ(value_of(*page, "[innerWidth, devicePixelRatio]"), "[500, 2]");
}

asio::awaitable<void> shake_hands(std::string port, std::string path, std::string origin) {
  boost::beast::websocket::stream<asio::ip::tcp::socket> stream(co_await asio::this_coro::executor);
  const asio::ip::tcp::endpoint endpoint(asio::ip::address_v4::loopback(),
                                         static_cast<unsigned short>(std::stoi(port)));
  co_await stream.next_layer().async_connect(endpoint, asio::use_awaitable);
  stream.set_option(
      boost::beast::websocket::stream_base::decorator([origin](auto& request) { request.set("Origin", origin); }));
  co_await stream.async_handshake("127.0.0.1:" + port, path, asio::use_awaitable);
}

TEST_F(Connect, IsNotForThePagesInTheBrowser) {
  EXPECT_THAT(error_of(shake_hands(port_, path_, "http://evil.test")), testing::HasSubstr("declined"));
}

// A browser of ours is reached by its pipe alone, and does not know our key.
TEST(Launch, OpensNoPortAndHandsOnNoKey) {
  const ProfilesHere profiles;
  const vision::test::ScopedEnv key("ANTHROPIC_API_KEY", "sk-canary-0123456789");
  auto browser = run(launch());
  for (const pid_t id : processes_with(profiles.path())) {
    EXPECT_THAT(vision::test::read_file("/proc/" + std::to_string(id) + "/environ"),
                testing::Not(testing::HasSubstr("canary")));
  }
  const auto profile = std::filesystem::directory_iterator(profiles.path())->path();
  EXPECT_EQ(std::filesystem::status(profile).permissions(), std::filesystem::perms(0700));
  EXPECT_FALSE(std::filesystem::exists(profile / "DevToolsActivePort"));
  run(browser->close());
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
