#include <signal.h>
#include <sys/mount.h>

#include <fstream>

#include "tests/chromium/browser_fixture.hpp"

namespace vision::chromium::test {
namespace {

namespace fs = std::filesystem;
using vision::test::proposal;

struct Misbehaviour {
  const char* name;
  std::string on_click;                                           // what the page does when it is clicked
  std::string ending;                                             // part of the mission's verdict
  std::function<void(const std::string& profiles)> befalls = {};  // done to the browser before the click
  bool hangs = false;                                             // forever, once on_click or befalls has begun
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
    {"a window with a dialog", "window.open('about:blank').document.write('<script>alert(1)</' + 'script>')", success},
    {"many windows", "for (let i = 0; i < 20; ++i) window.open('about:blank')", success},
    {"a download", "gift.click()", success},
    {"printing", "print()", success},
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
    // It starts with enough space, and only then cannot write any more.
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
      std::printf("skipped: no permission: %s\n", row.name);
      continue;
    }
    VirtualTimeLoop world;
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
    world.hangs = false;
    world.passes = {};
    if (!row.befalls) run(browser->close());
    browser.reset();
    fs::remove(profiles.path() + "/rest");
    EXPECT_TRUE(profiles.empty());
    if (mounts) ::umount2(profiles.path().c_str(), MNT_DETACH);
  }
}

}  // namespace
}  // namespace vision::chromium::test
