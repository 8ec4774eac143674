#include <linux/sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/write.hpp>

#include "chromium/events/navigation.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/pipe_transport.hpp"
#include "tests/chromium/browser_fixture.hpp"

namespace vision::chromium::test {
namespace {

// Children of whoever adds one, which live until this object ends.
class LivingChildren {
 public:
  LivingChildren() { EXPECT_EQ(::pipe(ends_), 0); }
  ~LivingChildren() {
    for (const int end : ends_) ::close(end);
  }
  void add() {
    if (::fork() != 0) return;
    ::close(ends_[1]);
    char nothing;
    while (::read(ends_[0], &nothing, 1) > 0) continue;
    ::_exit(0);
  }

 private:
  int ends_[2];
};

TEST(Connection, TakesWhateverAPeerSends) {
  asio::local::stream_protocol::socket ours(loop()), peer(loop());
  asio::local::connect_pair(ours, peer);
  auto connection = Connection::open(loop().get_executor(), std::make_unique<PipeTransport>(std::move(ours)),
                                     std::chrono::minutes(5));
  auto session = connection->session("");
  const auto send = [&](const std::string& text) { asio::write(peer, asio::buffer(text.data(), text.size() + 1)); };
  EXPECT_EQ(error_of(session->command("A.b", {}, milliseconds(20))), "TimeoutError: A.b: Timeout 20ms exceeded");
  for (const char* noise : {R"({"id":1,"result":{"too":"late"}})", "rubbish", "", "[]", R"({"id":"x"})", R"({"id":-1})",
                            R"({"method":5,"params":[]})", R"({"method":"Page.x","sessionId":"none"})"}) {
    send(noise);
  }
  std::string crowded = R"({"id":6,"result":{"":0)";
  for (int i = 0; i < 1000; ++i) crowded += ",\"\":0";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"id":2,"result":{"v":"\ud800"}})", R"({"v": "\ufffd"})"},
      {R"({"id":3,"error":{"code":-32601,"message":"no such\n\u001b[1mthing"}})",
       R"(ProtocolError: C.d: no such\n\u001b[1mthing (-32601))"},
      {R"({"id":4})", "BrowserError: C.d: the browser's reply has no result"},
      {R"({"id":5,"result":)", "BrowserError: unreadable message from the browser: incomplete JSON"},
      {crowded + "}}", "BrowserError: the browser sent an object with more than 1000 members"},
      {R"({"id":7,"error":{"code":-32001,"message":"Session not found"}})", closed},
  };
  for (const auto& [answer, expected] : cases) {
    Running<json::object> call(session->command("C.d"));
    send(answer);
    const std::string error = call.error();
    EXPECT_EQ(error == "no error" ? text::to_json(call.get()) : error, expected);
  }
  const std::string malformed = "BrowserError: the browser's picture is not valid base64";
  const std::pair<std::string, std::string> pictures[] = {
      {R"({"id":8,"result":{"data":"UE5H"}})", "PNG"},
      {R"({"id": 9, "result": {"data": "UE4="}})", "PN"},
      {R"({"id":10,"result":{"data":"UE5H","more":1}})", "PNG"},
      {R"({"id":11,"result":{"data":"UE5"}})", malformed},
      {R"({"id":12,"result":{"data":"UE5*"}})", malformed},
      {R"({"id":13})", "BrowserError: E.f: the browser's reply has no result"},
  };
  for (const auto& [answer, expected] : pictures) {
    Running<Bytes> call(session->command_for_picture("E.f", {}));
    send(answer);
    const std::string error = call.error();
    EXPECT_EQ(error == "no error" ? call.get().view() : error, expected);
  }
  Running<Bytes> picture(session->command_for_picture("E.f", {}, commits_document));
  send(R"({"method":"Page.frameNavigated","params":{"frame":{"parentId":"1"}}})");
  send(R"({"id":14,"result":{"data":"UE5H"}})");
  EXPECT_EQ(picture.error(), "no error");
  Running<Bytes> spoiled(session->command_for_picture("E.f", {}, commits_document));
  send(R"({"method":"Page.frameNavigated","params":{"frame":{}}})");
  EXPECT_EQ(spoiled.error(), "BrowserError: the page changed while its picture was being taken");
  std::string undone;
  Running<json::object> left(
      session->command_or_undo("G.h", {}, [&](const auto& late) { undone = text::to_json(late); }));
  left.cancel();
  EXPECT_THAT(left.error(), testing::StartsWith("system_error"));
  send(R"({"id":16,"result":{"made":1}})");
  while (undone.empty()) take_turn();
  EXPECT_EQ(undone, R"({"made": 1})");
  Running<json::object> last(session->command("C.d"));
  peer.close();
  EXPECT_EQ(last.error(), closed + " (the browser has exited or ended the connection)");
}

TEST(Connection, EndsWhenAPeerDoesNotReadTheAnswersToItsEvents) {
  asio::local::stream_protocol::socket ours(loop()), peer(loop());
  asio::local::connect_pair(ours, peer);
  auto connection = Connection::open(loop().get_executor(), std::make_unique<PipeTransport>(std::move(ours)),
                                     std::chrono::minutes(5));
  const auto session = connection->session("");
  session->set_event_handler([&session](std::string_view, const json::object&) {
    session->send_and_forget("Page.handleJavaScriptDialog", {{"accept", false}});
  });
  const auto send_events = [&]() -> asio::awaitable<void> {
    std::string events;
    for (int i = 0; i < 1000; ++i) events += R"({"method":"Page.javascriptDialogOpening"})" + std::string(1, '\0');
    for (int i = 0; i < 200; ++i) co_await asio::async_write(peer, asio::buffer(events), asio::use_awaitable);
    peer.close();
  };
  Running<void> sending(send_events());
  EXPECT_EQ(error_of(session->command("A.b")), closed + " (the browser does not read the answers to its events)");
  EXPECT_NE(sending.error(), "no error");
}

class Failures : public PageTest {};

TEST_F(Failures, AClosedPageFailsPendingOperations) {
  Pending pending(*page_);
  run(page_->close());
  EXPECT_EQ(pending.error(), closed);
  EXPECT_EQ(error_of(page_->screenshot({})), closed);
  EXPECT_EQ(error_of(page_->keyboard().press("a")), closed);
  run(page_->close());
  auto other = run(browser_->new_page());
  EXPECT_EQ(error_of(other->evaluate("window.close(), new Promise(() => {})")), closed);
}

TEST_F(Failures, ACrashFailsPendingOperationsUntilANavigation) {
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

// A launched browser can be reached only through its pipe, does not know the key, and
// leaves no files.
TEST(Launch, OpensNoPortHandsOnNoKeyAndLeavesNothingBehind) {
  const vision::test::ScopedEnv key("ANTHROPIC_API_KEY", "sk-canary-0123456789");
  for (const std::string how : {"closing", "destroying", "cancelling"}) {
    SCOPED_TRACE(how);
    const ProfilesHere profiles;
    Running<std::shared_ptr<Browser>> launching(launch());
    if (how == "cancelling") {
      while (processes_with(profiles.path()).empty()) take_turn();
      launching.cancel();
      EXPECT_THAT(launching.error(), testing::StartsWith("system_error"));
    } else {
      auto browser = launching.get();
      auto page = run(browser->new_page());
      Pending pending(*page);
      const auto profile = std::filesystem::directory_iterator(profiles.path())->path();
      EXPECT_EQ(std::filesystem::status(profile).permissions(), std::filesystem::perms(0700));
      EXPECT_FALSE(std::filesystem::exists(profile / "DevToolsActivePort"));
      const auto environment = "/proc/" + std::to_string(main_process(profiles.path())) + "/environ";
      EXPECT_THAT(vision::test::read_file(environment), testing::Not(testing::HasSubstr("canary")));
      for (int i = 0; i < 2 && how == "closing"; ++i) run(browser->close());
      browser.reset();
      EXPECT_EQ(pending.error(), closed + " (closed by this program)");
      EXPECT_EQ(error_of(page->mouse().click(1, 1)), closed + " (closed by this program)");
    }
    EXPECT_TRUE(profiles.empty());
  }
}

TEST(Launch, LeavesNothingBehindWhenThisProgramIsKilled) {
  const vision::test::ScratchDirectory programs;
  const std::string path = ::getenv("PATH"), starter = programs.path() / "chromium";
  std::ofstream(starter) << "#!/bin/sh\nexport PATH=" << path << "; exec chromium \"$@\"\n";
  ::chmod(starter.c_str(), 0700);
  LivingChildren children;
  for (const std::string how : {"at once", "with a stopped browser", "with a living child", "without rm on its PATH"}) {
    SCOPED_TRACE(how);
    const ProfilesHere profiles;
    const vision::test::ScopedEnv found("PATH", how.starts_with("without") ? programs.path().string() : path);
    const pid_t child = ::fork();
    if (child == 0) {
      asio::io_context own;
      asio::co_spawn(own, launch(), [&](std::exception_ptr error, std::shared_ptr<Browser>) {
        if (error) return;
        if (how == "with a stopped browser") ::kill(main_process(profiles.path()), SIGSTOP);
        if (how == "with a living child") children.add();
        ::kill(::getpid(), SIGKILL);
      });
      own.run();
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    while (!profiles.empty()) ::sched_yield();  // no process is left that could report it
  }
}

// Its time limits do not pass, so the browser has to hear that the pipe is closed.
TEST(Launch, ClosesWhileAForkedChildLives) {
  VirtualTimeLoop world;
  world.passes = {};
  LivingChildren children;
  const ProfilesHere profiles;
  auto browser = run(launch());
  children.add();
  run(browser->close());
  EXPECT_TRUE(profiles.empty());
}

// Process numbers are reused. The host goes while the supervisor removes the profile of
// a browser that has exited, whose number belongs to another process by then.
TEST(Launch, KillsNoOtherProcessAfterTheBrowser) {
  const vision::test::ScratchDirectory programs;
  const ProfilesHere profiles;
  const std::string removes = programs.path() / "rm", begun = programs.path() / "begun";
  ASSERT_EQ(::mkfifo(begun.c_str(), 0600), 0);
  std::ofstream(removes) << "#!/bin/sh\nb=" << begun << "; if [ -p $b ]; then read -r line <$b; /bin/rm $b; "
                         << "kill -TERM $PPID; fi\nexec /bin/rm \"$@\"\n";
  ::chmod(removes.c_str(), 0700);
  const vision::test::ScopedEnv path("PATH", programs.path().string() + ":" + ::getenv("PATH"));
  auto browser = run(launch());
  pid_t number = main_process(profiles.path());
  ::kill(number, SIGKILL);
  std::ofstream rest(begun);  // blocks until the removal has begun
  clone_args heir{};
  heir.exit_signal = SIGCHLD;
  heir.set_tid = reinterpret_cast<std::uintptr_t>(&number);
  heir.set_tid_size = 1;
  const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &heir, sizeof heir));
  while (child == 0) ::pause();
  rest << std::endl;
  browser.reset();
  EXPECT_TRUE(processes_with(profiles.path()).empty());
  if (child < 0) return static_cast<void>(std::printf("skipped: no permission, or the number is taken: %d\n", number));
  int status = 0;
  ::kill(child, SIGTERM);
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(Launch, LeavesNothingBehindWhenTheContextGoesFirst) {
  const ProfilesHere profiles;
  {
    asio::io_context inner;
    const auto use = [&]() -> asio::awaitable<void> {
      const auto browser = co_await launch();
      const auto page = co_await browser->new_page();
      inner.stop();
      co_await page->evaluate(for_ever);
    };
    asio::co_spawn(inner, use(), [](std::exception_ptr) {});
    inner.run();
  }
  EXPECT_TRUE(profiles.empty());
}

TEST(Launch, SaysWhatIsWrongWithTheBrowser) {
  const ProfilesHere profiles;
  const std::string none = "BrowserError: no browser to launch: ";
  for (const auto& [executable, expected] : {
           std::pair<std::string, std::string>("/no/browser", none + "/no/browser is missing or not executable"),
           {"no-browser", none + "\"no-browser\" is not on PATH"},
           {"/bin/ls", "BrowserError: the browser /bin/ls did not start: Target page"},
       }) {
    LaunchOptions options;
    options.executable(executable);
    const std::string error = error_of(launch(options));
    EXPECT_THAT(error, testing::StartsWith(expected));
    EXPECT_EQ(error.find("unrecognized option") != error.npos, executable == "/bin/ls");  // from its standard error
  }
  EXPECT_TRUE(profiles.empty());
}

}  // namespace
}  // namespace vision::chromium::test
