#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/asio/steady_timer.hpp>
#include <fstream>
#include <latch>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/runtime/worker.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/fixtures.hpp"

namespace vision {
namespace {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using test::proposal;

constexpr int all = 5;  // records of the mission below
constexpr int shots = 4;

// Where a mission's log and fixtures are to go, and what is lost of them there.
struct Surrounding {
  const char* name;
  std::string log;
  std::function<bool()> prepare;  // in a process of its own; false when it cannot be tried here
  int records_lost = all;
  int fixtures_lost = 0;
  std::function<void()> between = [] {};  // before every screenshot
};

const auto nothing = [] { return true; };

bool limit(int resource, rlim_t value) {
  const rlimit both{value, value};
  return ::setrlimit(static_cast<__rlimit_resource>(resource), &both) == 0;
}

bool mount(const char* options, unsigned long flags) {
  fs::create_directory("mount");
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", "mount", "tmpfs", flags, options) == 0;
}

bool become_nobody() {
  constexpr uid_t nobody = 65534;
  return ::geteuid() != 0 || ::seteuid(nobody) == 0;
}

bool no_permission() {
  fs::permissions(".", fs::perms::owner_read | fs::perms::owner_exec);
  return become_nobody();
}

bool write_only() {
  std::ofstream("log").close();
  fs::permissions(".", fs::perms::all);
  fs::permissions("log", fs::perms(0222));
  return become_nobody();
}

bool full_disk() {
  if (!mount("size=4k", 0)) return false;
  std::ofstream("mount/log") << std::string(4000, 'x') << "\n";
  return true;
}

template <class Function>
auto then_true(Function function) {
  return [function] {
    function();
    return true;
  };
}

const Surrounding surroundings[] = {
    {"a good log", "log", nothing, 0},
    {"a missing directory", "a/b/log", nothing, 0},
    {"a full device", "/dev/full", nothing},
    {"a directory", "directory", then_true([] { fs::create_directory("directory"); })},
    {"a file as directory", "file/log", then_true([] { std::ofstream("file") << "x"; })},
    {"a FIFO without a reader", "fifo", then_true([] { ::mkfifo("fifo", 0600); })},
    {"a symbolic link", "link", then_true([] { std::ofstream("log"), fs::create_symlink("log", "link"); }), 0},
    {"a link to nothing", "link", then_true([] { fs::create_symlink("log", "link"); }), 0},
    {"a link into nowhere", "link", then_true([] { fs::create_symlink("no/where", "link"); })},
    {"a link to itself", "link", then_true([] { fs::create_symlink("link", "link"); })},
    {"a name of 255 bytes", std::string(255, 'n'), nothing, 0},
    {"a name of 256 bytes", std::string(256, 'n'), nothing},
    {"a place in /proc", "/proc/no/such", nothing},
    {"no permission", "log", no_permission, all, shots},
    {"no permission to read", "log", write_only, 0},
    {"no descriptors left", "log", [] { return limit(RLIMIT_NOFILE, 0); }, all, shots},
    {"a file-size limit", "log", [] { return limit(RLIMIT_FSIZE, 5); }, all, shots},
    {"a full file system", "mount/log", full_disk},
    {"a read-only file system", "mount/log", [] { return mount("size=4k", MS_RDONLY); }},
    {"a log that is rotated", "log", nothing, 0, 0,
     [] {
       static int number = 0;
       if (fs::exists("log")) fs::rename("log", "log." + std::to_string(number++));
     }},
    {"a log that is deleted", "logs/log", nothing, 0, 0, [] { fs::remove_all("logs"); }},
};

// Everything that a caller could tell a mission's outcome by.
std::string mission(const Surrounding& surrounding) {
  test::TestRegistry::instance();
  test::World world;
  asio::steady_timer(world.io).cancel();  // a host has its event loop before it runs out of descriptors
  auto model = std::make_shared<test::ScriptedModel>();
  model->answer(proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.25)"))
      .answer(proposal("type", 0.9, R"(, "text": "x")"))
      .answer(proposal("key", 0.9, R"(, "key": "Enter")"))
      .answer(proposal("declare_success", 0.9));
  VisionClient client(model);
  test::ScriptedPage page;
  page.before = [&](std::string operation) -> asio::awaitable<void> {
    if (operation == "screenshot") surrounding.between();
    co_return;
  };
  if (!surrounding.prepare()) return "";
  ActLoopOptions options({{"phase", 2}}, "site");
  options.vision(client).run_id("run");
  const ActionResult result = world.run(act_loop(page, std::move(options)));
  std::string out = result.action + " " + result.reason + " " + std::to_string(result.latency_ms) + " " +
                    std::to_string(world.seconds()) + " " + std::to_string(client.metrics.call_count);
  for (const auto& action : page.actions) out += " " + action;
  return out;
}

struct Outcome {
  std::string mission;
  int records_lost = 0, fixtures_lost = 0;
};

// In a process of its own: limits and identities do not come back.
Outcome run_in_child(const Surrounding& surrounding) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    std::string outcome = mission(surrounding);
    outcome += "\n" + std::to_string(shadow_log_losses()) + " " + std::to_string(fixture_losses());
    const bool written = ::write(ends[1], outcome.data(), outcome.size()) == static_cast<ssize_t>(outcome.size());
    ::_exit(written ? 0 : 1);
  }
  ::close(ends[1]);
  char buffer[1000];
  std::string text;
  for (ssize_t size; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(size));
  ::close(ends[0]);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << surrounding.name << ": killed by signal " << WTERMSIG(status);
  Outcome out;
  std::istringstream in(text);
  std::getline(in, out.mission);
  in >> out.records_lost >> out.fixtures_lost;
  return out;
}

int records_below(const fs::path& folder) {
  int count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    EXPECT_NE(entry.path().extension(), ".part");
    const bool is_log = !entry.is_symlink() && entry.is_regular_file() && entry.path().extension() != ".png";
    if (!is_log) continue;
    for (const auto& line : test::read_lines(entry.path())) count += line.starts_with("{\"ts\": ");
  }
  return count;
}

TEST(Surroundings, NoneChangesAMissionAndLossesAreCounted) {
  const test::LogCapture log;
  const test::ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  std::string good;
  for (const auto& surrounding : surroundings) {
    SCOPED_TRACE(surrounding.name);
    const test::ScratchDirectory here;
    const test::ScopedEnv path("KX_VISION_SHADOW_LOG", surrounding.log);
    const Outcome outcome = run_in_child(surrounding);
    if (outcome.mission.empty()) {
      std::printf("not tried, for want of rights: %s\n", surrounding.name);
      continue;
    }
    if (good.empty()) good = outcome.mission;
    EXPECT_EQ(outcome.mission, good);
    EXPECT_EQ(outcome.records_lost, surrounding.records_lost);
    EXPECT_EQ(outcome.fixtures_lost, surrounding.fixtures_lost);
    const bool swept = std::string_view(surrounding.name) == "a log that is deleted";
    EXPECT_EQ(records_below("."), swept ? 2 : all - surrounding.records_lost);
  }
  EXPECT_TRUE(good.starts_with("declare_success ")) << good;
}

asio::awaitable<void> block_worker(std::latch& entered, std::latch& leave) {
  std::function<void()> job = [&] {
    entered.count_down();
    leave.wait();
  };
  return runtime::run_on_worker(std::move(job));
}

TEST(Fixtures, NoMoreWaitThanTheBoundAndNoneIsThereInPart) {
  const test::ScratchDirectory here;
  const test::ScopedEnv on("KX_VISION_FIXTURE_AUTO", "1");
  asio::io_context io;
  std::latch entered(1), leave(1);
  asio::co_spawn(io, block_worker(entered, leave), [](std::exception_ptr) {});
  io.poll();
  entered.wait();
  constexpr std::size_t room = runtime::max_waiting_jobs - 1, too_many = 6;
  std::size_t stored = 0, refused = 0;
  for (std::size_t i = 0; i < room + too_many; ++i) {
    asio::co_spawn(io, _harvest_fixture(Bytes(std::string("PNG")), "site", std::to_string(i)),
                   [&](std::exception_ptr, const std::optional<std::string>& path) { ++(path ? stored : refused); });
  }
  const auto before = fixture_losses();
  io.restart();
  while (refused < too_many) io.run_one();
  EXPECT_EQ(stored, 0u);
  leave.count_down();
  io.run();
  EXPECT_EQ(stored, room);
  EXPECT_EQ(refused, too_many);
  EXPECT_EQ(fixture_losses() - before, too_many);
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator("tests/fixtures/vision/auto/site")) {
    ++files;
    EXPECT_EQ(entry.path().extension(), ".png");
    EXPECT_EQ(entry.status().permissions(), fs::perms(0600));
  }
  EXPECT_EQ(files, room);
  EXPECT_EQ(fs::status("tests/fixtures/vision/auto/site").permissions(), fs::perms(0700));
}

}  // namespace
}  // namespace vision
