#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/runtime/one_shot.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/fixtures.hpp"

namespace vision {
namespace {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using Action = std::function<void()>;

constexpr std::uint64_t all = 3, shots = 2;  // records and screenshots of the mission below
constexpr int same = 0, untried = 77;        // how a mission's process ends, or with 1

// Where a mission's log and fixtures are to go, and what is lost of them there.
struct Surrounding {
  const char* name;
  std::string log;
  Action prepare;  // in a process of its own: limits and identities do not come back
  std::uint64_t records_lost = all;
  std::uint64_t fixtures_lost = 0;
  Action between = [] {};  // before every screenshot
};

void need(bool holds) {
  if (!holds) ::_exit(untried);
}

void limit(int resource, rlim_t value) {
  const rlimit both{value, value};
  need(::setrlimit(static_cast<__rlimit_resource>(resource), &both) == 0);
}

void mount(unsigned long flags) {
  fs::create_directory("mount");
  need(::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
       ::mount("none", "mount", "tmpfs", flags, "size=4k") == 0);
}

void full_disk() {
  mount(0);
  std::ofstream("mount/log") << std::string(4000, 'x') << "\n";
}

void become_nobody(fs::perms folder, fs::perms log) {
  std::ofstream("log").close();
  fs::permissions("log", log);
  fs::permissions(".", folder);
  constexpr uid_t nobody = 65534;
  need(::geteuid() != 0 || ::seteuid(nobody) == 0);
}

void rotate() {
  if (fs::exists("log.1")) fs::rename("log.1", "log.2");
  if (fs::exists("log")) fs::rename("log", "log.1");
}

const Action nothing = [] {};

const Surrounding surroundings[] = {
    {"a good log", "log", nothing, 0},
    {"a missing directory", "a/b/log", nothing, 0},
    {"a full device", "/dev/full", nothing},
    {"a full file system", "mount/log", full_disk},
    {"a read-only file system", "mount/log", [] { mount(MS_RDONLY); }},
    {"a directory", ".", nothing},
    {"a file as directory", "file/log", [] { std::ofstream("file") << "x"; }},
    {"a FIFO without a reader", "fifo", [] { ::mkfifo("fifo", 0600); }},
    {"a symbolic link", "link", [] { fs::create_symlink("log", "link"); }, 0},
    {"a name of 256 bytes", std::string(256, 'n'), nothing},
    {"no permission", "log", [] { become_nobody(fs::perms(0500), fs::perms(0400)); }, all, shots},
    {"no permission to read", "log", [] { become_nobody(fs::perms(0777), fs::perms(0222)); }, 0},
    {"no descriptors left", "log", [] { limit(RLIMIT_NOFILE, 0); }, all, shots},
    {"a file-size limit", "log", [] { limit(RLIMIT_FSIZE, 5); }, all, shots},
    {"a log that is rotated", "log", nothing, 0, 0, rotate},
    {"a log that is deleted", "logs/log", nothing, 0, 0, [] { fs::remove_all("logs"); }},
};

// Tells whether all went as it goes with a good log, and the losses were counted.
int mission(const Surrounding& surrounding) noexcept {
  test::TestRegistry::instance();
  test::World world;
  const runtime::OneShot early(world.io.get_executor());  // a host has its event loop before descriptors run out
  auto model = std::make_shared<test::ScriptedModel>();
  model->answer(test::proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.25)"))
      .answer(test::proposal("declare_success", 0.9));
  VisionClient client(model);
  test::ScriptedPage page;
  page.before = [&](std::string operation) -> asio::awaitable<void> {
    if (operation == "screenshot") surrounding.between();
    co_return;
  };
  surrounding.prepare();
  ActLoopOptions options({{"phase", 2}}, "site");
  options.vision(client).run_id("run");
  const ActionResult result = world.run(act_loop(page, std::move(options)));
  const bool is_same = result.action == "declare_success" && result.latency_ms == 500 && world.seconds() == 2 &&
                       page.actions == std::vector<std::string>{"click [6.4E2,2E2]"} && client.metrics.call_count == 2;
  const bool is_counted =
      shadow_log_losses() == surrounding.records_lost && fixture_losses() == surrounding.fixtures_lost;
  return is_same && is_counted ? same : 1;
}

std::uint64_t records_below(const fs::path& folder) {
  std::uint64_t count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    EXPECT_NE(entry.path().extension(), ".part");
    if (entry.is_symlink() || !entry.is_regular_file()) continue;
    for (const auto& line : test::read_lines(entry.path())) count += line.starts_with("{\"ts\": ");
  }
  return count;
}

TEST(Surroundings, NoneChangesAMissionAndLossesAreCounted) {
  const test::LogCapture log;
  const test::ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  for (const auto& surrounding : surroundings) {
    SCOPED_TRACE(surrounding.name);
    const test::ScratchDirectory here;
    const test::ScopedEnv path("KX_VISION_SHADOW_LOG", surrounding.log);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(mission(surrounding));
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    if (WEXITSTATUS(status) == untried) {
      std::printf("not tried, for want of rights: %s\n", surrounding.name);
      continue;
    }
    EXPECT_EQ(WEXITSTATUS(status), same);
    const bool is_swept = std::string_view(surrounding.name) == "a log that is deleted";
    EXPECT_EQ(records_below("."), is_swept ? all - 1 : all - surrounding.records_lost);
  }
}

}  // namespace
}  // namespace vision
