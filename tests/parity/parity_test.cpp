// The cases of cases.json in C++; model_server.py says what a case has.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/json/value_from.hpp>
#include <boost/json/value_to.hpp>
#include <regex>

#include "bindings/c/records.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::test {
namespace {

namespace json = boost::json;

/// An error of a script's: of the page, a step or the agent.
struct ScriptError : std::runtime_error, NamedError, CuaOriginMark {
  ScriptError(std::string name, const std::string& message) : std::runtime_error(message), kind(std::move(name)) {}
  const char* kind_name() const noexcept override { return kind.c_str(); }
  std::string kind;
};

std::string text_of(const json::value& value) {
  return json::value_to<std::string>(value);
}

/// Does what a step of a script says.
json::value follow(const json::value& step) {
  if (const json::value* error = step.as_object().if_contains("error"))
    throw ScriptError(text_of(error->at("kind")), text_of(error->at("message")));
  return step.at("value");
}

json::object member(const json::object& owner, const char* name) {
  const json::value* found = owner.if_contains(name);
  return found ? found->as_object() : json::object();
}

/// One case as it is played: its page, its host, and what they were called with.
class Stage : public BrowserPage, private Mouse, private Keyboard {
 public:
  explicit Stage(const json::object& played) : faults_(member(played, "page")), steps_(member(played, "host")) {}

  asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override {
    call("screenshot", {options.full_page()});
    co_return Bytes(std::string("PNG"));
  }
  asio::awaitable<json::value> evaluate(std::string expression) override {
    co_return call("evaluate", {expression}, 2.0);
  }
  std::optional<json::object> viewport_size() override {
    const json::value size = call("viewport_size", {}, {{"width", 1000}, {"height", 500}});
    return size.is_null() ? std::nullopt : std::optional(size.as_object());
  }
  Mouse& mouse() override { return *this; }
  Keyboard& keyboard() override { return *this; }

  bool has(const char* function) const { return steps_.contains(function); }
  asio::awaitable<json::value> told_of(std::string function, json::array arguments) {
    arguments.insert(arguments.begin(), json::value(function));
    told.push_back(std::move(arguments));
    json::array& steps = steps_.at(function).as_array();
    const json::value step = steps.front();
    steps.erase(steps.begin());
    co_return follow(step);
  }

  json::array calls, told;

 private:
  asio::awaitable<void> click(double x, double y) override { co_return (void) call("mouse_click", {x, y}); }
  asio::awaitable<void> wheel(double x, double y) override { co_return (void) call("mouse_wheel", {x, y}); }
  asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override {
    co_return (void) call("keyboard_type", {text, delay.count()});
  }
  asio::awaitable<void> press(std::string key) override { co_return (void) call("keyboard_press", {key}); }

  json::value call(const char* name, json::array arguments, json::value usual = nullptr) {
    arguments.insert(arguments.begin(), json::value(name));
    calls.push_back(std::move(arguments));
    const json::value* fault = faults_.if_contains(name);
    return fault ? follow(*fault) : usual;
  }

  json::object faults_, steps_;
};

json::object described(const ActionResult& result) {
  json::object out = c::to_json(result);
  out["latency_ms"] = 0;
  return out;
}

asio::awaitable<json::object> rescue(Stage& stage, FallbackOptions options) {
  using Agent = std::function<asio::awaitable<json::value>(BrowserPage&, const FlowContext&, const std::string&)>;
  std::function<asio::awaitable<json::value>()> primary_fn = [&stage] { return stage.told_of("primary_fn", {}); };
  Agent agent = [&stage](BrowserPage&, const FlowContext& context, const std::string& reason) {
    return stage.told_of("cua_fallback", {context, reason});
  };
  if (!stage.has("cua_fallback")) agent = nullptr;
  const auto outcome = co_await with_vision_fallback(stage, std::move(primary_fn), std::move(options), agent);
  json::object ends;
  switch (outcome.way()) {
    case FallbackWay::step: ends = {{"way", "step"}, {"value", outcome.step()}}; break;
    case FallbackWay::rescued: ends = {{"way", "rescued"}, {"value", outcome.step()}}; break;
    case FallbackWay::verdict: ends = {{"way", "verdict"}, {"value", described(outcome.verdict())}}; break;
    case FallbackWay::agent: ends = {{"way", "agent"}, {"value", outcome.agent()}}; break;
  }
  co_return ends;
}

ActLoopOptions mission_of(c::Options& given, Stage& stage, ActLoopOptions mission) {
  mission.mission_prompt(given.text("mission_prompt"))
      .read_only(given.flag("read_only").value_or(false))
      .run_id("run-1");
  mission.max_steps(given.integer("max_steps").value_or(mission.max_steps()));
  if (!stage.has("should_abort")) return mission;
  const auto probe = [&stage]() -> asio::awaitable<bool> {
    const json::value answer = co_await stage.told_of("should_abort", json::array());
    co_return answer.as_bool();
  };
  return std::move(mission.should_abort_later(probe));
}

/// Calls the operation of a case; returns its value, and of a rescue the way.
asio::awaitable<json::object> operate(const json::object& played, FlowContext context, Stage& stage,
                                      VisionClient& client) {
  c::Options given(member(played, "options"), "options");
  const std::string operation = text_of(played.at("operation"));
  const bool high_stakes = given.flag("high_stakes").value_or(false);
  json::value value;
  if (operation == "with_vision_fallback") {
    FallbackOptions options(context);
    options.vision(client).high_stakes(high_stakes);
    co_return co_await rescue(stage, std::move(options));
  } else if (operation == "act_loop") {
    ActLoopOptions mission = mission_of(given, stage, ActLoopOptions(context, "share-dialog").vision(client));
    value = described(co_await act_loop(stage, std::move(mission)));
  } else if (operation == "act") {
    AskOptions options;
    options.prompt(given.text("prompt")).high_stakes(high_stakes);
    if (const auto limit = given.seconds("timeout_s")) options.timeout_s(*limit);
    value = described(co_await client.act(stage, context, options));
  } else if (operation == "execute_action") {
    ActionResult result = c::action_result_from(c::Options(*given.object("result"), "result"));
    const ImgMeta meta = c::img_meta_from(c::Options(*given.object("img_meta"), "img_meta"));
    co_await execute_action(stage, std::move(result), meta);
  } else {
    ObserverOptions options(context, "share-dialog");
    options.vision(client).run_id("run-1").high_stakes(high_stakes);
    options.dom_ground_truth(given.object("dom_ground_truth").value_or(json::object()));
    if (operation == "observe_only") {
      co_await observe_only(stage, std::move(options));
      value = "the record";
    } else {
      std::function<asio::awaitable<json::value>()> cua_fn = [&stage] { return stage.told_of("cua_fn", {}); };
      value = co_await shadow_observe_then_cua(stage, std::move(cua_fn), std::move(options));
    }
  }
  json::object ends = {{"value", std::move(value)}};
  co_return ends;
}

json::object described(const std::exception_ptr& error) {
  const auto [kind, message] = text::describe(error);
  return {{"kind", kind}, {"message", message}, {"cua_origin", is_cua_origin(error)}};
}

/// The C interface asks for it with each screenshot, since its pages answer later. In C++ it is read when it is needed.
void drop_viewport_size(json::array& calls) {
  const auto is_it = [](const json::value& call) { return call.at(0) == "viewport_size"; };
  calls.erase(std::remove_if(calls.begin(), calls.end(), is_it), calls.end());
}

/// Runs a case; returns what came of it as the table has it.
json::object play(const json::object& played, const FlowContext& context, const std::string& url) {
  Stage stage(played);
  VisionClientOptions options = VisionClientOptions().api_key("any").http(HttpOptions().base_url(url));
  if (const auto client = member(played, "client"); client.contains("call_budget"))
    options.call_budget(client.at("call_budget").as_int64());
  VisionClient client(std::move(options));
  const std::size_t before = read_lines("shadow.jsonl").size();
  json::object ends;
  asio::io_context io;
  asio::co_spawn(io, operate(played, context, stage, client), [&](const std::exception_ptr& error, json::object value) {
    ends = error ? json::object{{"error", described(error)}} : std::move(value);
  });
  io.run();
  const std::vector<std::string> lines = read_lines("shadow.jsonl");
  json::array records;
  const std::regex times(R"re("(ts|latency_ms|elapsed_ms)": ("[^"]*"|[0-9.e+-]+))re");
  for (std::size_t i = before; i < lines.size(); ++i)
    records.emplace_back(std::regex_replace(lines[i], times, R"("$1": 0)"));
  drop_viewport_size(stage.calls);
  ends["calls"] = std::move(stage.calls);
  ends["told"] = std::move(stage.told);
  ends["records"] = std::move(records);
  return ends;
}

/// A text that is the same for equal values: JSON does not tell 500 from 500.0.
std::string comparable(json::value value) {
  const std::function<void(json::value&)> plain = [&plain](json::value& at) {
    if (at.is_int64()) at = static_cast<double>(at.get_int64());
    if (at.is_array()) std::for_each(at.get_array().begin(), at.get_array().end(), plain);
    if (at.is_object())
      for (auto& [name, inner] : at.get_object()) plain(inner);
  };
  plain(value);
  std::map<std::string, std::string> members;
  for (const auto& [name, inner] : value.as_object()) members[name] = json::serialize(inner);
  return json::serialize(json::value_from(members));
}

TEST(Parity, Cases) {
  ScratchDirectory directory;
  const ScopedEnv log_path("KX_VISION_SHADOW_LOG", "shadow.jsonl");
  LogCapture log;
  TestRegistry::instance();
  FILE* server = ::popen("echo $$; exec " SERVER, "r");
  int pid = 0;
  char url[64];
  ASSERT_EQ(::fscanf(server, "%d %63s", &pid, url), 2);
  const json::value table = json::parse(read_file(CASES));
  int number = 0;
  for (const json::value& scripted : table.at("cases").as_array()) {
    const json::object& played = scripted.as_object();
    SCOPED_TRACE(text_of(played.at("name")));
    json::object expected = played.at("ends").as_object();
    if (const json::value* way = played.if_contains("way")) expected["way"] = *way;
    drop_viewport_size(expected.at("calls").as_array());
    const std::string place = std::string(url) + "/cpp/" + std::to_string(number++);
    EXPECT_EQ(comparable(play(played, table.at("flow_context").as_object(), place)), comparable(expected));
  }
  ::kill(pid, SIGTERM);
  ::pclose(server);
}

}  // namespace
}  // namespace vision::test
