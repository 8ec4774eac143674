#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/json/parse.hpp>
#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/virtual_time.hpp"
#include "vision/client/response.hpp"
#include "vision/text/json_text.hpp"
#include "vision/wirein/fixtures.hpp"
#include "vision/wirein/shadow_log.hpp"

namespace vision {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::StartsWith;

class Telemetry : public testing::Test {
 protected:
  test::ScratchDirectory directory;
  test::LogCapture log;
};

TEST_F(Telemetry, RecordsGoWhereTheVariableSays) {
  const std::pair<std::optional<std::string>, const char*> rows[] = {{std::nullopt, "logs/vision_shadow.jsonl"},
                                                                     {"", "logs/vision_shadow.jsonl"},
                                                                     {"plain.jsonl", "plain.jsonl"},
                                                                     {"a/b/../c/d.jsonl", "a/c/d.jsonl"},
                                                                     {"deep/er/x", "deep/er/x"}};
  for (const auto& [variable, file] : rows) {
    const test::ScopedEnv env("KX_VISION_SHADOW_LOG", variable);
    fs::remove(file);
    _append_shadow_record({{"b", 1}, {"a", "—"}});
    _append_shadow_record({{"a", 0.85}, {"b", nullptr}});
    EXPECT_EQ(test::read_file(file), "{\"b\": 1, \"a\": \"\\u2014\"}\n{\"a\": 0.85, \"b\": null}\n");
  }
  struct stat info {};
  ASSERT_EQ(::stat("deep/er/x", &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Telemetry, UnusablePathsCostTheRecordOnly) {
  fs::create_directory("directory");
  std::ofstream("file") << "x";
  ASSERT_EQ(::mkfifo("fifo", 0600), 0);
  const std::string long_name(256, 'n');
  for (const std::string path : {"directory", "file/below", "fifo", "/dev/full", long_name.c_str(), "/proc/no/such"}) {
    const test::ScopedEnv env("KX_VISION_SHADOW_LOG", path);
    const std::size_t before = log.lines().size();
    _append_shadow_record({{"a", 1}});
    ASSERT_EQ(log.lines().size(), before + 1) << path;
    EXPECT_THAT(log.lines().back(), StartsWith("debug: shadow log append failed: " + path.substr(0, 4))) << path;
  }
}

TEST_F(Telemetry, ATornTailSpoilsNoOtherRecord) {
  const test::ScopedEnv env("KX_VISION_SHADOW_LOG", "log");
  std::ofstream("log") << "{\"whole\": 1}\n{\"cut";
  _append_shadow_record({{"a", 1}});
  _append_shadow_record({{"a", 2}});
  EXPECT_THAT(test::read_lines("log"), ElementsAre("{\"whole\": 1}", "{\"cut", "{\"a\": 1}", "{\"a\": 2}"));
}

// In a child process, because the limit cannot be raised again for certain.
TEST_F(Telemetry, AFileSizeLimitDoesNotKillTheProcess) {
  const test::ScopedEnv env("KX_VISION_SHADOW_LOG", "log");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const rlimit limit{20, 20};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    _append_shadow_record({{"a", "longer than the limit allows"}});
    _append_shadow_record({{"a", "longer than the limit allows"}});
    ::_exit(7);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
}

TEST_F(Telemetry, ManyProcessesTearNoLine) {
  const test::ScopedEnv env("KX_VISION_SHADOW_LOG", "log");
  constexpr int processes = 4, records = 2000;
  for (int p = 0; p < processes; ++p) {
    if (::fork() != 0) continue;
    for (int i = 0; i < records; ++i) _append_shadow_record({{"p", p}, {"i", i}, {"pad", std::string(600, 'x')}});
    ::_exit(0);
  }
  while (::wait(nullptr) > 0) {
  }
  std::vector<int> next(processes);
  for (const auto& line : test::read_lines("log")) {
    if (line.empty()) continue;  // a writer took another's record in the making for a torn one
    const auto record = boost::json::parse(line);
    EXPECT_EQ(record.at("i"), next.at(static_cast<std::size_t>(record.at("p").as_int64()))++);
  }
  EXPECT_THAT(next, testing::Each(records));
}

TEST_F(Telemetry, ActionRecordAndVisionBlock) {
  ActionResult click("click", "a timeout, it says", 0.5, "n");
  click.text = "secret";
  click.latency_ms = 12.75;
  EXPECT_EQ(
      text::to_json(_vision_block(click)),
      R"({"action": "click", "reason": "a timeout, it says", "confidence": 0.5, "next_expected_state": "n", )"
      R"("x_ratio": null, "y_ratio": null, "model": "", "latency_ms": 12.75, "input_tokens": 0, "output_tokens": 0, )"
      R"("low_confidence": false})");
  const std::pair<const char*, const char*> rows[] = {
      {"vision timeout after 20.0s",
       R"({"timeout": true, "elapsed_ms": 1999, "reason": "vision timeout after 20.0s"})"},
      {"transport error: X: read TimeOut",
       R"({"timeout": true, "elapsed_ms": 1999, "reason": "transport error: X: read TimeOut"})"},
      {"Transport error: X: y", R"({"error": "Transport error: X: y", "elapsed_ms": 1999})"},
      {"unexpected error: X: y", R"({"error": "unexpected error: X: y", "elapsed_ms": 1999})"},
      {"model did not return propose_action tool call",
       R"({"error": "model did not return propose_action tool call", "elapsed_ms": 1999})"},
  };
  for (const auto& [reason, block] : rows) {
    EXPECT_EQ(text::to_json(_vision_block(_failure_result(reason, "m", 1999.9))), block);
  }
  const auto verdict = _failure_result("a login wall; no transport error", "m", 1.0);
  EXPECT_EQ(_vision_block(verdict), _observe_action_record(verdict));
}

class Fixtures : public Telemetry {
 protected:
  std::optional<std::string> harvest(const std::string& hotspot, const std::optional<std::string>& run) {
    return world.run(_harvest_fixture(Bytes(std::string("PNG")), hotspot, run));
  }
  test::World world;
};

TEST_F(Fixtures, SwitchAndNames) {
  for (const char* off : {"", "0", "TRUE", "Yes", "on"}) {
    const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", off);
    EXPECT_EQ(harvest("h", "r"), std::nullopt) << off;
  }
  EXPECT_TRUE(fs::is_empty("."));
  for (const char* on : {" 1 ", "true", "yes"}) {
    const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", on);
    EXPECT_EQ(harvest("h", "run-42"), "tests/fixtures/vision/auto/h/run-42_1763319900.png") << on;
  }
  const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", "1");
  for (const auto& run : {std::optional<std::string>(), std::optional<std::string>("")}) {
    EXPECT_EQ(harvest("h", run), "tests/fixtures/vision/auto/h/run_1763319900.png");
  }
  EXPECT_EQ(test::read_file("tests/fixtures/vision/auto/h/run_1763319900.png"), "PNG");
  EXPECT_EQ(std::distance(fs::directory_iterator("tests/fixtures/vision/auto/h"), fs::directory_iterator()), 2);
}

TEST_F(Fixtures, NothingLandsOutsideTheFolder) {
  const test::ScopedEnv env("KX_VISION_FIXTURE_AUTO", "1");
  const std::string nul("a\0b", 3);
  for (const std::string& bad : {std::string(), std::string("."), std::string(".."), std::string("/etc"),
                                 std::string("a/b"), std::string("../x"), nul}) {
    EXPECT_EQ(harvest(bad, "r"), std::nullopt) << bad;
    if (bad.empty()) continue;  // an empty run_id is an absent one
    EXPECT_EQ(harvest("h", bad), std::nullopt) << bad;
  }
  EXPECT_TRUE(fs::is_empty("."));
  EXPECT_EQ(log.lines().size(), 13u);
  std::ofstream("tests") << "in the way";
  EXPECT_EQ(harvest("h", "r"), std::nullopt);
  EXPECT_THAT(log.lines().back(), StartsWith("debug: fixture harvest failed: tests/fixtures: "));
}

}  // namespace
}  // namespace vision
