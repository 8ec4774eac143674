#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/algorithm/string/replace.hpp>
#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/runtime/internal/one_shot.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"
#include "vision/wirein/internal/fixtures.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace vision {
namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;
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

void no_descriptors() {
#ifdef __clang__
  need(!__has_feature(undefined_behavior_sanitizer));  // which opens a pipe to look at an object
#endif
  limit(RLIMIT_NOFILE, 0);
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
    {"no descriptors left", "log", no_descriptors, all, shots},
    {"a file-size limit", "log", [] { limit(RLIMIT_FSIZE, 5); }, all, shots},
    {"a log that is rotated", "log", nothing, 0, 0, [] { ::rename("log", "log.1"); }},
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
      std::printf("not tried here: %s\n", surrounding.name);
      continue;
    }
    EXPECT_EQ(WEXITSTATUS(status), same);
    const bool is_swept = std::string_view(surrounding.name) == "a log that is deleted";
    EXPECT_EQ(records_below("."), is_swept ? all - 1 : all - surrounding.records_lost);
  }
}

class Telemetry : public testing::Test {
 protected:
  std::optional<std::string> harvest(const std::string& hotspot, const std::optional<std::string>& run) {
    return world.run(_harvest_fixture(Bytes(std::string("PNG")), hotspot, run));
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::LogCapture log;
  test::World world;
};

TEST_F(Telemetry, RecordsGoWhereTheVariableSays) {
  const std::pair<std::optional<std::string>, const char*> rows[] = {{std::nullopt, "logs/vision_shadow.jsonl"},
                                                                     {"", "logs/vision_shadow.jsonl"},
                                                                     {"a/b/../c/d.jsonl", "a/c/d.jsonl"}};
  for (const auto& [variable, file] : rows) {
    const test::ScopedEnv env("KX_VISION_SHADOW_LOG", variable);
    fs::remove(file);
    _append_shadow_record({{"b", 1}, {"a", "—"}});
    std::ofstream(file, std::ios::app) << "{\"cut";
    _append_shadow_record({{"a", 0.85}, {"b", nullptr}});
    EXPECT_EQ(test::read_file(file), "{\"b\": 1, \"a\": \"\\u2014\"}\n{\"cut\n{\"a\": 0.85, \"b\": null}\n");
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  }
}

TEST_F(Telemetry, VisionBlock) {
  const std::pair<const char*, const char*> rows[] = {
      {"a read TimeOut", R"({"timeout": true, "elapsed_ms": 1999, "reason": "a read TimeOut"})"},
      {"Transport error: X: y", R"({"error": "Transport error: X: y", "elapsed_ms": 1999})"},
      {"It did not return", R"({"error": "It did not return", "elapsed_ms": 1999})"},
  };
  for (const auto& [reason, block] : rows) {
    EXPECT_EQ(text::to_json(_vision_block(_failure_result(Cause::unexpected_error, reason, "m", 1999.9))), block);
  }
  const auto verdict = _failure_result(Cause::model_answer, "a login wall; no transport error", "m", 1.0);
  EXPECT_EQ(_vision_block(verdict), _observe_action_record(verdict));
}

// All bytes, and what else ends a line or drives a terminal somewhere.
const std::string hostile_bytes = [] {
  std::string out = "\u0085\u2028\u2029\x1b[2J\r\n{\"forged\": 1}\n";
  for (int byte = 1; byte <= 256; ++byte) out += static_cast<char>(byte);  // NUL last: an error's message ends there
  return out;
}();

// The same as Unicode text: what is no UTF-8 is replaced.
const std::string hostile_text = [] {
  std::string out = hostile_bytes.substr(0, hostile_bytes.size() - 129);
  for (int byte = 128; byte < 256; ++byte) out += "\uFFFD";
  return out + '\0';
}();

asio::awaitable<void> throw_hostile_error() {
  throw std::runtime_error(hostile_bytes);
  co_return;
}

TEST_F(Telemetry, HostileTextStaysInItsLine) {
  const test::ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  test::ScriptedPage page;
  const auto model = std::make_shared<test::ScriptedModel>();
  auto hooks = VisionClientOptions().default_model(hostile_bytes);
  hooks.on_action([](const ActionResult&, const FlowContext&) { return throw_hostile_error(); });
  VisionClient client(model, hooks);
  ObserverOptions options({{"phase", hostile_bytes}, {"platform", hostile_bytes}, {"workflow_name", hostile_bytes}},
                          hostile_bytes);
  options.vision(client).run_id(hostile_bytes).dom_ground_truth({{hostile_bytes, hostile_bytes}});
  const boost::json::value text(hostile_text);
  const boost::json::object input = {
      {"action", text}, {"reason", text}, {"confidence", 0.9}, {"next_expected_state", text}};
  const std::string answer = test::tool_call(text::to_json(input));

  // Each is asked of by an observer, by a call, and perhaps once more.
  const std::pair<Action, const char*> rows[] = {
      {[&] { model->fail(APIConnectionError(hostile_bytes)); }, "transport error: APIConnectionError: "},
      {[&] { model->fail(std::runtime_error(hostile_bytes)); }, "unexpected error: runtime_error: "},
      {[&] { model->answer(answer); }, ""},
      {[&] { page.before = [](std::string) { return throw_hostile_error(); }; }, "runtime_error: "},
  };
  for (const auto& [set, error] : rows) {
    for (int i = 0; i < 3; ++i) set();
    world.run(observe_only(page, options));
    world.run(client.ask(Bytes(std::string("PNG")), ImgMeta(1, 1, 1, 0), options.flow_context()));
    model->steps.clear();
    const auto records = test::read_lines("logs/vision_shadow.jsonl");
    for (const char c : records.back()) EXPECT_TRUE(c >= ' ' && c <= 0x7F) << "one line of ASCII";
    const auto record = boost::json::parse(records.back());
    for (const char* member : {"run_id", "hotspot_id", "phase", "agent"}) EXPECT_EQ(record.at(member), text) << member;
    EXPECT_EQ(record.at("dom_ground_truth").at(hostile_text), text);
    const auto& vision = record.at("vision").as_object();
    if (const auto* told = vision.if_contains("error")) {
      EXPECT_TRUE(told->as_string().starts_with(error + std::string(text::first_code_points(hostile_text, 200))));
      continue;
    }
    for (const char* member : {"action", "reason", "next_expected_state", "model"}) EXPECT_EQ(vision.at(member), text);
  }
  EXPECT_EQ(test::read_lines("logs/vision_shadow.jsonl").size(), std::size(rows));
  EXPECT_GT(log.lines().size(), 8u);
  for (std::string line : log.lines()) {
    // The stack below an unexpected error is all that takes lines of its own.
    if (line.starts_with("error: ")) boost::algorithm::replace_all(line, "\n    ", " ");
    EXPECT_EQ(line.find("+0x"), line.npos) << "a frame without a name: " << line;
    EXPECT_EQ(text::one_line(line), line);
  }
}

TEST_F(Telemetry, FixtureNames) {
  const std::string folder = "tests/fixtures/vision/auto/h/";
  for (const char* off : {"", "0", "TRUE", "Yes", "on"}) {
    const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", off);
    EXPECT_EQ(harvest("h", "r"), std::nullopt) << off;
  }
  for (const char* on : {" 1 ", "true", "yes"}) {
    const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", on);
    EXPECT_EQ(harvest("h", "run-42"), folder + "run-42_1763319900.png") << on;
  }
  const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", "1");
  EXPECT_EQ(harvest("h", std::nullopt), folder + "run_1763319900.png");
  EXPECT_EQ(harvest("h", ""), folder + "run_1763319900.png");
  EXPECT_EQ(test::read_file(folder + "run_1763319900.png"), "PNG");
  EXPECT_EQ(fs::status(folder + "run_1763319900.png").permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms(0700));
  for (const char* bad : {"", ".", "..", "/etc"}) EXPECT_EQ(harvest(bad, "r"), std::nullopt) << bad;
  EXPECT_EQ(harvest("h", std::string("a\0b", 3)), std::nullopt);
  EXPECT_EQ(log.lines().size(), 5u);
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator("."), fs::recursive_directory_iterator()), 7);
}

}  // namespace
}  // namespace vision
