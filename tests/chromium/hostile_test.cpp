#include <signal.h>
#include <sys/mount.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>
#include <regex>

#include "tests/chromium/browser_fixture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/wirein/act_loop.hpp"

namespace vision::chromium::test {
namespace {

namespace fs = std::filesystem;
using asio::ip::tcp;
using vision::test::proposal;

// A mission on a real page with time limits in virtual time: the pauses between
// steps pass at once, a limit only once it is known that nothing else can come.
class HostileWorld {
 public:
  HostileWorld()
      : time_(std::make_shared<vision::test::VirtualTime>(io_)), begins_(io_, {asio::ip::address_v4::loopback(), 0}) {
    runtime::install_time_source(io_, time_);
    begins_.async_accept([this](boost::system::error_code, tcp::socket) { hangs = true; });
  }

  template <class T>
  T run(asio::awaitable<T> operation) {
    std::optional<T> out;
    std::exception_ptr error;
    asio::co_spawn(io_, keep(std::move(operation), out), [&](std::exception_ptr e) { error = e; });
    while (!out && !error) {
      const bool busy = io_.poll_one() > 0;
      if (hangs && time_->advance()) continue;
      const bool pause = pauses_pass && time_->until_next() < std::chrono::milliseconds(2500);
      if (!busy && !(pause && time_->advance())) io_.run_one();
    }
    if (error) std::rethrow_exception(error);
    return std::move(*out);
  }

  /// A statement of a page's that tells that what follows it goes on for ever.
  std::string tell() const {
    return "fetch('http://127.0.0.1:" + std::to_string(begins_.local_endpoint().port()) + "', {mode: 'no-cors'}); ";
  }

  bool hangs = false, pauses_pass = true;

 private:
  template <class T>
  static asio::awaitable<void> keep(asio::awaitable<T> operation, std::optional<T>& out) {
    out.emplace(co_await std::move(operation));
  }

  asio::io_context io_;
  std::shared_ptr<vision::test::VirtualTime> time_;
  tcp::acceptor begins_;
};

asio::awaitable<bool> done(asio::awaitable<void> operation) {
  co_await std::move(operation);
  co_return true;
}

pid_t main_process(const std::string& profiles) {
  for (const pid_t id : processes_with(profiles)) {
    const auto line = vision::test::read_file("/proc/" + std::to_string(id) + "/cmdline");
    if (line.starts_with("/") && line.find("--type=") == line.npos) return id;
  }
  return -1;
}

struct Misbehaviour {
  const char* name;
  std::string on_click;                                           // what the page does when it is clicked
  std::string ending;                                             // of the mission: a regular expression
  std::function<void(const std::string& profiles)> befalls = {};  // what happens before that to the browser
  bool hangs = false;                                             // for ever, once on_click or befalls has begun
  std::function<bool(const std::string& profiles)> before = {};   // before the launch; false: cannot be tried here
};

const std::string success = "declare_success: because";
const std::string timed_out =
    R"(escalate_to_cua: execute_action\(click\) failed at step 1: TimeoutError: Input.dispatchMouseEvent: Timeout 30000ms.*)";
const std::string page_closed = "escalate_to_cua: .*PageClosedError: Target page, context or browser has been closed.*";

const Misbehaviour misbehaviours[] = {
    {"dialogs", "alert(1), confirm(2), prompt(3)", success},
    {"a window with a dialog", "window.open('about:blank').document.write('<script>alert(1)</' + 'script>')", success},
    {"many windows", "for (let i = 0; i < 20; ++i) window.open('about:blank')", success},
    {"a download", "gift.click()", success},
    {"printing", "print()", success},
    {"a question whether to leave", "onbeforeunload = e => e.preventDefault()", success},
    {"a console without end",
     "setInterval(() => { for (let i = 0; i < 1000; ++i) console.log('x'.repeat(1000) + i); })", success},
    {"another document in mid-step", "document.open(), document.write('gone'), document.close()", success},
    {"reloading without end", "name = 'again', location.reload()", success},
    {"frames without end", "setInterval(() => document.body.append(document.createElement('iframe')), 1)", success},
    {"a script without end", "TELL for (;;);", timed_out, {}, true},
    {"dialogs without end", "TELL for (;;) alert(1)", timed_out, {}, true},
    {"a browser that stops", "", timed_out,
     [](const std::string& profiles) { ::kill(main_process(profiles), SIGSTOP); }, true},
    {"a browser that is killed", "", page_closed,
     [](const std::string& profiles) { ::kill(main_process(profiles), SIGKILL); }},
    {"a browser that crashes", "", page_closed,
     [](const std::string& profiles) { ::kill(main_process(profiles), SIGSEGV); }},
    {"a full disk",  // which some runs of the browser survive and some do not
     "",
     success + "|" + page_closed,
     {},
     false,
     [](const std::string& profiles) { return ::mount("none", profiles.c_str(), "tmpfs", 0, "size=2m") == 0; }},
};

asio::awaitable<ActionResult> mission(std::shared_ptr<ChromiumPage> page, std::string html, VisionClient& client) {
  co_await page->navigate(page_url(html));
  ActLoopOptions options({{"phase", 2}}, "site");
  options.vision(client);
  co_return co_await act_loop(*page, std::move(options));
}

TEST(Hostile, AMissionEndsInItsDocumentedValueAndNothingIsLeft) {
  vision::test::TestRegistry::instance();
  const vision::test::ScopedEnv log("KX_VISION_SHADOW_LOG", "/dev/null");
  for (const auto& row : misbehaviours) {
    SCOPED_TRACE(row.name);
    const ProfilesHere profiles;
    if (row.before && !row.before(profiles.path())) {
      std::printf("not tried, for want of rights: %s\n", row.name);
      continue;
    }
    HostileWorld world;
    const std::string act = std::regex_replace(row.on_click, std::regex("TELL"), world.tell());
    auto model = std::make_shared<vision::test::ScriptedModel>();
    model->answer(proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.5)"), 0)
        .answer(proposal("declare_success", 0.9), 0);
    VisionClientOptions hooks;
    hooks.on_action([&](const ActionResult&, const FlowContext&) -> asio::awaitable<void> {
      if (row.befalls && !world.hangs) {
        row.befalls(profiles.path());
        world.hangs = row.hangs;
      }
      co_return;
    });
    VisionClient client(model, hooks);
    auto browser = world.run(launch());
    auto page = world.run(browser->new_page());
    const std::string html =
        "<body style='height:700px' onclick=\"" + act +
        "\"><a id=gift download=gift href='data:,x'></a><script>if (name) location.reload()</script>";
    const ActionResult result = world.run(mission(page, html, client));
    EXPECT_TRUE(std::regex_match(result.action + ": " + result.reason, std::regex(row.ending)))
        << result.action << ": " << result.reason;
    const bool downloads = row.on_click.starts_with("gift");
    for (fs::recursive_directory_iterator file(profiles.path()); downloads && file != fs::end(file); ++file) {
      EXPECT_NE(file->path().stem(), "gift");
    }
    page.reset();
    const bool answers = !row.befalls;
    world.hangs = world.pauses_pass = false;
    if (answers) world.run(done(browser->close()));
    browser.reset();
    if (row.before) ::umount2(profiles.path().c_str(), MNT_DETACH);
    EXPECT_TRUE(profiles.empty());
  }
}

TEST(Hostile, WindowsCloseWithThePageThatOpenedThem) {
  auto browser = run(launch());
  auto page = run(browser->new_page()), other = run(browser->new_page());
  run(page->navigate(page_url("<body style='height:700px' onclick=\"window.open('about:blank')\">")));
  run(page->mouse().click(50, 50));
  while (run(browser->pages()).size() < 3) continue;
  run(page->close());
  while (run(browser->pages()).size() > 1) continue;
  EXPECT_EQ(run(browser->pages())[0].target_id, other->target_id());
  run(browser->close());
}

asio::awaitable<void> shake_hands(std::string port, std::string path, std::string origin) {
  boost::beast::websocket::stream<tcp::socket> stream(co_await asio::this_coro::executor);
  const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), static_cast<unsigned short>(std::stoi(port)));
  co_await stream.next_layer().async_connect(endpoint, asio::use_awaitable);
  stream.set_option(
      boost::beast::websocket::stream_base::decorator([origin](auto& request) { request.set("Origin", origin); }));
  co_await stream.async_handshake("127.0.0.1:" + port, path, asio::use_awaitable);
}

// The browser is reached by its pipe alone, and a port that somebody opened is
// closed to the pages in it. Our key is not in there.
TEST(Hostile, TheBrowserIsReachedByNobodyElse) {
  const ProfilesHere profiles;
  const vision::test::ScopedEnv key("ANTHROPIC_API_KEY", "sk-canary-0123456789");
  for (const bool open_port : {false, true}) {
    LaunchOptions options;
    if (open_port) options.argument("--remote-debugging-port=0");
    auto browser = run(launch(options));
    for (const pid_t id : processes_with(profiles.path())) {
      const auto environment = vision::test::read_file("/proc/" + std::to_string(id) + "/environ");
      EXPECT_EQ(environment.find("canary"), environment.npos);
    }
    const fs::path profile = fs::directory_iterator(profiles.path())->path();
    EXPECT_EQ(fs::status(profile).permissions(), fs::perms(0700));
    std::istringstream port_file(vision::test::read_file(profile / "DevToolsActivePort"));
    std::string port, path;
    while (open_port && path.empty()) {
      port_file.str(vision::test::read_file(profile / "DevToolsActivePort"));
      port_file.clear();
      port_file >> port >> path;
    }
    EXPECT_EQ(fs::exists(profile / "DevToolsActivePort"), open_port);
    if (open_port) {
      EXPECT_THAT(error_of(shake_hands(port, path, "http://evil.test")), testing::HasSubstr("declined"));
    }
    run(browser->close());
  }
}

}  // namespace
}  // namespace vision::chromium::test
