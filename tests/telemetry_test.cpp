#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/json/parse.hpp>
#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/response.hpp"
#include "vision/text/json_text.hpp"
#include "vision/text/utf8.hpp"
#include "vision/wirein/fixtures.hpp"
#include "vision/wirein/observer.hpp"
#include "vision/wirein/shadow_log.hpp"

namespace vision {
namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;

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
                                                                     {"plain.jsonl", "plain.jsonl"},
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
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Telemetry, VisionBlock) {
  const std::pair<const char*, const char*> rows[] = {
      {"a read TimeOut", R"({"timeout": true, "elapsed_ms": 1999, "reason": "a read TimeOut"})"},
      {"Transport error: X: y", R"({"error": "Transport error: X: y", "elapsed_ms": 1999})"},
      {"unexpected error: X: y", R"({"error": "unexpected error: X: y", "elapsed_ms": 1999})"},
      {"It did not return", R"({"error": "It did not return", "elapsed_ms": 1999})"},
  };
  for (const auto& [reason, block] : rows) {
    EXPECT_EQ(text::to_json(_vision_block(_failure_result(reason, "m", 1999.9))), block);
  }
  const auto verdict = _failure_result("a login wall; no transport error", "m", 1.0);
  EXPECT_EQ(_vision_block(verdict), _observe_action_record(verdict));
  const ActionResult click("click", "a timeout, it says", 0.5, "n");
  EXPECT_EQ(_vision_block(click), _observe_action_record(click));
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
  const std::pair<std::function<void()>, const char*> rows[] = {
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
    EXPECT_EQ(text::one_line(records.back()), records.back());
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
  EXPECT_TRUE(log.lines().empty());
  for (const char* bad : {"", ".", "..", "/etc"}) EXPECT_EQ(harvest(bad, "r"), std::nullopt) << bad;
  EXPECT_EQ(harvest("h", std::string("a\0b", 3)), std::nullopt);
  EXPECT_EQ(log.lines().size(), 5u);
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator("."), fs::recursive_directory_iterator()), 7);
}

}  // namespace
}  // namespace vision
