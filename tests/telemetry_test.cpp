#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

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

// Where a mission's log and fixtures go, and what becomes of its 3 records and 2
// screenshots there.
struct Surrounding {
  const char* name;
  std::string log;
  std::uint64_t records_left, records_lost = 0, fixtures_lost = 0;
  Action prepare = [] {};  // in a process of its own: limits and identities do not come back
  Action between = [] {};  // before every screenshot
};

void limit(int resource, rlim_t value) {
  const rlimit both{value, value};
  ::setrlimit(static_cast<__rlimit_resource>(resource), &both);
}

void become_nobody(fs::perms folder, fs::perms log) {
  std::ofstream("log").close();
  fs::permissions("log", log);
  fs::permissions(".", folder);
  constexpr uid_t nobody = 65534;
  if (::geteuid() == 0 && ::seteuid(nobody) != 0) ::_exit(1);
}

const Surrounding surroundings[] = {
    {"a good log", "log", 3},
    {"a missing directory", "a/b/log", 3},
    {"a full device", "/dev/full", 0, 3},
    {"a directory", ".", 0, 3},
    {"a file as directory", "file/log", 0, 3, 0, [] { std::ofstream("file") << "x"; }},
    {"a FIFO without a reader", "fifo", 0, 3, 0, [] { ::mkfifo("fifo", 0600); }},
    {"a symbolic link", "link", 3, 0, 0, [] { fs::create_symlink("log", "link"); }},
    {"a name of 256 bytes", std::string(256, 'n'), 0, 3},
    {"no permission", "log", 0, 3, 2, [] { become_nobody(fs::perms(0500), fs::perms(0400)); }},
    {"no permission to read", "log", 3, 0, 0, [] { become_nobody(fs::perms(0777), fs::perms(0222)); }},
#ifndef __clang__  // whose sanitizer opens a pipe to look at an object
    {"no descriptors left", "log", 0, 3, 2, [] { limit(RLIMIT_NOFILE, 0); }},
#endif
    {"a file-size limit", "log", 0, 3, 2, [] { limit(RLIMIT_FSIZE, 2); }},
    {"a log that is rotated", "log", 3, 0, 0, [] {}, [] { ::rename("log", "log.1"); }},
    {"a log that is deleted", "logs/log", 2, 0, 0, [] {}, [] { fs::remove_all("logs"); }},
};

// Whether all went as it goes with a good log, and the losses were counted.
bool mission_is_unchanged(const Surrounding& surrounding) {
  test::TestRegistry::instance();
  test::VirtualLoop loop;
  const runtime::OneShot early(loop.io.get_executor());  // a host creates its event loop before descriptors run out
  auto model = std::make_shared<test::ScriptedModel>();
  model->answer(test::proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.25)"))
      .answer(test::proposal("declare_success", 0.9));
  VisionClient client(model);
  test::ScriptedPage page;
  page.before = [&](const std::string& operation) {
    if (operation == "screenshot") surrounding.between();
    return test::pause(0);
  };
  surrounding.prepare();
  ActLoopOptions options({{"phase", 2}}, "site");
  options.vision(client).run_id("run");
  const ActionResult result = loop.run(act_loop(page, std::move(options)));
  return result.action == "declare_success" && result.latency_ms == 500 && loop.seconds() == 2 &&
         page.actions == std::vector<std::string>{"click [6.4E2,2E2]"} && client.metrics.call_count == 2 &&
         shadow_log_losses() == surrounding.records_lost && fixture_losses() == surrounding.fixtures_lost;
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

TEST(SurroundingsDeathTest, NoneChangesAMissionAndLossesAreCounted) {
  const test::LogCapture log;
  const test::ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  for (const auto& surrounding : surroundings) {
    SCOPED_TRACE(surrounding.name);
    const test::ScratchDirectory here;
    const test::ScopedEnv path("KX_VISION_SHADOW_LOG", surrounding.log);
    EXPECT_EXIT(::_exit(mission_is_unchanged(surrounding) ? 0 : 1), testing::ExitedWithCode(0), "");
    EXPECT_EQ(records_below("."), surrounding.records_left);
  }
}

class Telemetry : public testing::Test {
 protected:
  std::optional<std::string> harvest(const std::string& hotspot, const std::optional<std::string>& run) {
    return loop.run(_harvest_fixture(Bytes(std::string("PNG")), hotspot, run));
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::ScratchDirectory directory;
  test::LogCapture log;
  test::VirtualLoop loop;
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

// Every byte, and what else ends a line or drives a terminal somewhere.
const std::string hostile_bytes = [] {
  std::string out = "\u0085\u2028\u2029\x1b[2J\r\n{\"forged\": 1}\n";
  for (int byte = 1; byte <= 256; ++byte) out += static_cast<char>(byte);  // NUL last: an error's message ends there
  return out;
}();
const boost::json::value hostile_text = boost::json::parse(text::to_json(boost::json::string(hostile_bytes)));

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
  const boost::json::object input = {
      {"action", hostile_text}, {"reason", hostile_text}, {"confidence", 0.9}, {"next_expected_state", hostile_text}};
  const std::string answer = test::tool_call(text::to_json(input));
  const std::string beginning(text::first_code_points(hostile_text.as_string(), 200));
  model->answer(answer).fail(APIConnectionError(hostile_bytes)).fail(std::runtime_error(hostile_bytes));
  for (int run = 0; run < 4; ++run) {
    if (run == 3) page.before = [](std::string) { return throw_hostile_error(); };
    loop.run(observe_only(page, options));
    const std::string line = test::read_lines("logs/vision_shadow.jsonl").back();
    for (const char c : line) EXPECT_TRUE(c >= ' ' && c <= 0x7F) << "one line of ASCII";
    const auto record = boost::json::parse(line);
    for (const char* member : {"run_id", "hotspot_id", "phase", "agent"}) EXPECT_EQ(record.at(member), hostile_text);
    EXPECT_EQ(record.at("dom_ground_truth").at(hostile_text.as_string()), hostile_text);
    using Members = std::vector<const char*>;
    for (const char* member :
         run == 0 ? Members{"action", "reason", "next_expected_state", "model"} : Members{"error"}) {
      EXPECT_THAT(text::plain_text(record.at("vision").at(member)), testing::HasSubstr(beginning)) << member;
    }
  }
  // The notice of a retry, and the summary of a call.
  model->fail(APIConnectionError(hostile_bytes)).answer(answer);
  loop.run(client.ask(Bytes(std::string("PNG")), ImgMeta(1, 1, 1, 0), options.flow_context()));
  EXPECT_EQ(test::read_lines("logs/vision_shadow.jsonl").size(), 4u);
  EXPECT_GT(log.lines().size(), 8u);
  for (std::string line : log.lines()) {
    // Only the stack below an unexpected error takes lines of its own.
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
