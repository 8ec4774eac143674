#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <boost/json/parse.hpp>
#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/response.hpp"
#include "vision/text/json_text.hpp"
#include "vision/wirein/fixtures.hpp"
#include "vision/wirein/observer.hpp"
#include "vision/wirein/shadow_log.hpp"

namespace vision {
namespace {

namespace asio = boost::asio;
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

TEST_F(Telemetry, ATornTailSpoilsNoOtherRecord) {
  const test::ScopedEnv env("KX_VISION_SHADOW_LOG", "log");
  std::ofstream("log") << "{\"whole\": 1}\n{\"cut";
  _append_shadow_record({{"a", 1}});
  _append_shadow_record({{"a", 2}});
  EXPECT_THAT(test::read_lines("log"), ElementsAre("{\"whole\": 1}", "{\"cut", "{\"a\": 1}", "{\"a\": 2}"));
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

void expect_harmless(const std::string& line) {
  EXPECT_EQ(std::count_if(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }), 0) << line;
  for (const char* mark : {"\u0085", "\u009b", "\u2028", "\u2029"}) EXPECT_EQ(line.find(mark), line.npos) << line;
}

class HostileHost : public MessagesClient {
 public:
  explicit HostileHost(int n) : call(n) {}
  asio::awaitable<boost::json::value> create(const MessagesRequest&) override {
    if (call == 0) throw APIConnectionError(hostile_bytes);
    if (call == 1) throw std::runtime_error(hostile_bytes);
    boost::json::object input = {{"action", hostile_text}, {"reason", hostile_text}, {"confidence", 0.9}};
    input["next_expected_state"] = hostile_text;
    const boost::json::value answer = {{"type", "tool_use"}, {"name", "propose_action"}, {"input", input}};
    co_return boost::json::object{{"content", boost::json::array{answer}}};
  }
  int call;
};

TEST_F(Telemetry, HostileTextStaysInItsLine) {
  test::TestRegistry::instance();
  const test::ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  for (int call = 0; call < 4; ++call) {
    test::World world;
    test::ScriptedPage page;
    page.before = [&](std::string) -> asio::awaitable<void> {
      if (call == 3) throw std::runtime_error(hostile_bytes);
      co_return;
    };
    VisionClientOptions hooks;
    hooks.default_model(hostile_bytes).on_action([](const ActionResult&, const FlowContext&) -> asio::awaitable<void> {
      throw std::runtime_error(hostile_bytes);
      co_return;
    });
    VisionClient client(std::make_shared<HostileHost>(call), hooks);
    ObserverOptions options({{"phase", hostile_bytes}, {"platform", hostile_bytes}, {"workflow_name", hostile_bytes}},
                            hostile_bytes);
    options.vision(client).run_id(hostile_bytes).dom_ground_truth({{hostile_bytes, hostile_bytes}});
    world.run(observe_only(page, options));
    AskOptions ask;
    ask.transport_retry(true).timeout_s(1);
    world.run(client.ask(Bytes(std::string("PNG")), ImgMeta(1, 1, 1, 0), options.flow_context(), ask));

    const auto records = test::read_lines("logs/vision_shadow.jsonl");
    ASSERT_EQ(records.size(), static_cast<std::size_t>(call + 1));
    expect_harmless(records.back());
    const auto record = boost::json::parse(records.back());
    const boost::json::value text(hostile_text);
    for (const char* member : {"run_id", "hotspot_id", "phase", "agent"}) EXPECT_EQ(record.at(member), text) << member;
    EXPECT_EQ(record.at("dom_ground_truth").at(hostile_text), text);
    const auto& vision = record.at("vision");
    if (call < 2) {
      const std::string start =
          call == 0 ? "transport error: APIConnectionError: " : "unexpected error: runtime_error: ";
      EXPECT_EQ(vision.at("error").as_string(), start + hostile_text.c_str());
    } else if (call == 2) {
      for (const char* member : {"action", "reason", "next_expected_state", "model"}) {
        EXPECT_EQ(vision.at(member), text) << member;
      }
    } else {
      EXPECT_TRUE(vision.at("error").as_string().starts_with("runtime_error: \u0085\u2028")) << vision;
    }
  }
  EXPECT_GT(log.lines().size(), 8u);
  for (std::string line : log.lines()) {
    // The stack below an unexpected error is all that takes lines of its own.
    if (line.starts_with("error: ")) boost::algorithm::replace_all(line, "\n    ", " ");
    expect_harmless(line);
  }
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
