#include <signal.h>
#include <sys/mount.h>

#include <boost/asio/ip/tcp.hpp>
#include <fstream>

#include "tests/chromium/browser_fixture.hpp"
#include "tests/support/scripted.hpp"

namespace vision::chromium::test {
namespace {

namespace fs = std::filesystem;
using asio::ip::tcp;
using vision::test::proposal;

// A mission on a real page with time limits in virtual time: the pauses between
// steps pass at once, a limit only once it is known that nothing else can come.
class HostileWorld : vision::test::VirtualLoop {
 public:
  HostileWorld() : begins_(io, {asio::ip::address_v4::loopback(), 0}) {
    begins_.async_accept([this](boost::system::error_code, tcp::socket) { hangs = true; });
    current_loop = &io;
    test::take_turn = [this] {
      const bool busy = io.poll_one() > 0;
      if (hangs && time->advance()) return;
      const bool pause = pauses_pass && time->until_next() < milliseconds(2500);
      if (!busy && !(pause && time->advance())) io.run_one();
    };
  }
  ~HostileWorld() {
    current_loop = nullptr;
    test::take_turn = [] { loop().run_one(); };
  }

  /// A statement of a page's that tells that what follows it goes on for ever.
  std::string tell() const {
    return "fetch('http://127.0.0.1:" + std::to_string(begins_.local_endpoint().port()) + "', {mode: 'no-cors'}); ";
  }

  bool hangs = false, pauses_pass = true;

 private:
  tcp::acceptor begins_;
};

struct Misbehaviour {
  const char* name;
  std::string on_click;                                           // what the page does when it is clicked
  std::string ending;                                             // of the mission, or a part of it
  std::function<void(const std::string& profiles)> befalls = {};  // what happens to the browser before the click
  bool hangs = false;                                             // for ever, once on_click or befalls has begun
};

const std::string success = "declare_success: because";
const std::string timed_out = "failed at step 1: TimeoutError: Input.dispatchMouseEvent: Timeout 30000ms exceeded";
const std::string page_closed = closed + " (the browser has exited or ended the connection)";

std::function<void(const std::string&)> signalled(int signal) {
  return [signal](const std::string& profiles) { ::kill(main_process(profiles), signal); };
}

void fill_disk(const std::string& profiles) {
  std::ofstream rest(profiles + "/rest");
  while (rest << std::string(4096, 'x') << std::flush) continue;
}

const char* const full_disk = "a full disk";
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
    {"a script without end", "for (;;);", timed_out, {}, true},
    {"dialogs without end", "for (;;) alert(1)", timed_out, {}, true},
    {"a browser that stops", "", timed_out, signalled(SIGSTOP), true},
    {"a browser that is killed", "", page_closed, signalled(SIGKILL)},
    {"a browser that crashes", "", page_closed, signalled(SIGSEGV)},
    // It was started with room for its files, so that it only fails to write more.
    {full_disk, "", success, fill_disk},
};

TEST(Hostile, AMissionEndsInItsDocumentedValueAndNothingIsLeft) {
  vision::test::TestRegistry::instance();
  const vision::test::ScopedEnv log("KX_VISION_SHADOW_LOG", "/dev/null");
  for (const auto& row : misbehaviours) {
    SCOPED_TRACE(row.name);
    const ProfilesHere profiles;
    const bool mounts = row.name == full_disk;
    if (mounts && ::mount("none", profiles.path().c_str(), "tmpfs", 0, "size=64m") != 0) {
      std::printf("not tried, for want of rights: %s\n", row.name);
      continue;
    }
    HostileWorld world;
    const std::string act = (row.hangs ? world.tell() : "") + row.on_click;
    auto model = std::make_shared<vision::test::ScriptedModel>();
    model->answer(proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.5)"), 0)
        .answer(proposal("declare_success", 0.9), 0);
    VisionClientOptions hooks;
    hooks.on_action([&](const ActionResult& result, const FlowContext&) -> asio::awaitable<void> {
      if (row.befalls && result.action == "click") {
        row.befalls(profiles.path());
        world.hangs = row.hangs;
      }
      co_return;
    });
    VisionClient client(model, hooks);
    auto browser = run(launch());
    auto page = run(browser->new_page());
    ActLoopOptions mission({{"phase", 2}}, "site");
    mission.vision(client);
    run(page->navigate(
        page_url("<body style='height:700px' onclick=\"" + act +
                 "\"><a id=gift download=gift href='data:,x'></a><script>if (name) location.reload()</script>")));
    const std::string ending = run(verdict_of(*page, std::move(mission)));
    EXPECT_THAT(ending, testing::HasSubstr(row.ending));
    const bool downloads = row.on_click.starts_with("gift");
    for (fs::recursive_directory_iterator file(profiles.path()); downloads && file != fs::end(file); ++file) {
      EXPECT_NE(file->path().stem(), "gift");
    }
    page.reset();
    world.hangs = world.pauses_pass = false;
    if (!row.befalls) run(browser->close());
    browser.reset();
    fs::remove(profiles.path() + "/rest");
    EXPECT_TRUE(profiles.empty());
    if (mounts) ::umount2(profiles.path().c_str(), MNT_DETACH);
  }
}

}  // namespace
}  // namespace vision::chromium::test
