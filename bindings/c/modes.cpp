#include <array>
#include <stdexcept>
#include <utility>
#include <variant>

#include "bindings/c/exit_gate.hpp"
#include "bindings/c/operation.hpp"
#include "bindings/c/records.hpp"
#include "bindings/c/replies.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/vision.hpp"

namespace vision::c {
namespace json = boost::json;
namespace {

using AsyncValue = std::function<asio::awaitable<json::value>()>;

// One of the host's functions that take nothing but the reply, as the modes call it.
AsyncValue host_function(const char* name, void (*function)(void*, vision_reply), void* host) {
  if (!function) return nullptr;
  return [name, function, host] {
    return value_from_host(name, [function, host](vision_reply reply) { call_host(function, host, reply); });
  };
}

AsyncValue required(AsyncValue function, const char* name) {
  if (!function) throw std::invalid_argument(std::string(name) + " is required");
  return function;
}

FlowContext flow_context(Options& options) {
  return options.required(&Options::object, "flow_context");
}

Output output(const ActionResult& result) {
  return Output(to_json(result));
}

AskOptions ask_options(Options& options) {
  AskOptions ask;
  ask.prompt(options.text("prompt")).high_stakes(options.flag("high_stakes").value_or(false));
  if (const auto value = options.seconds("timeout_s")) ask.timeout_s(*value);
  return ask;
}

asio::awaitable<Output> ask(const Input& in, Options options) {
  const ImgMeta meta = img_meta_from(Options(options.required(&Options::object, "img_meta"), "img_meta"));
  const FlowContext context = flow_context(options);
  AskOptions ask = ask_options(options);
  if (const auto value = options.flag("transport_retry")) ask.transport_retry(*value);
  options.finish();
  const ActionResult result = co_await in.client().ask(in.image(), meta, context, ask);
  co_return output(result);
}

asio::awaitable<Output> act(const Input& in, Options options) {
  const FlowContext context = flow_context(options);
  const AskOptions ask = ask_options(options);
  options.finish();
  const auto page = in.page();
  const ActionResult result = co_await in.client().act(*page, context, ask);
  co_return output(result);
}

asio::awaitable<Output> screenshot(const Input& in, Options options) {
  const bool full_page = options.flag("full_page").value_or(false);
  options.finish();
  const auto page = in.page();
  auto shot = co_await in.client().screenshot(*page, full_page);
  Output out(to_json(shot.second));
  out.image = std::move(shot.first);
  co_return out;
}

asio::awaitable<Output> execute(const Input& in, Options options) {
  const ActionResult result = action_result_from(Options(options.required(&Options::object, "result"), "result"));
  const ImgMeta meta = img_meta_from(Options(options.required(&Options::object, "img_meta"), "img_meta"));
  options.finish();
  const auto page = in.page();
  co_await execute_action(*page, result, meta);
  co_return Output();
}

asio::awaitable<Output> mission(const Input& in, Options options) {
  FlowContext context = flow_context(options);
  ActLoopOptions mission(std::move(context), options.required(&Options::text, "hotspot_id"));
  if (auto value = options.text("mission_prompt")) mission.mission_prompt(std::move(*value));
  if (auto value = options.text("run_id")) mission.run_id(std::move(*value));
  if (const auto value = options.flag("high_stakes")) mission.high_stakes(*value);
  if (const auto value = options.integer("max_steps")) mission.max_steps(*value);
  if (const auto value = options.flag("read_only")) mission.read_only(*value);
  options.finish();
  if (const AsyncValue probe = host_function("should_abort", in.functions.should_abort, in.host)) {
    mission.should_abort_later([probe]() -> asio::awaitable<bool> {
      const json::value answer = co_await probe();
      co_return answer.is_bool() && answer.get_bool();
    });
  }
  mission.vision(in.client());
  const auto page = in.page();
  const ActionResult verdict = co_await act_loop(*page, std::move(mission));
  co_return output(verdict);
}

ObserverOptions observer_options(const Input& in, Options& options) {
  FlowContext context = flow_context(options);
  ObserverOptions observer(std::move(context), options.required(&Options::text, "hotspot_id"));
  if (auto value = options.text("run_id")) observer.run_id(std::move(*value));
  if (const auto value = options.flag("high_stakes")) observer.high_stakes(*value);
  observer.vision(in.client());
  return observer;
}

asio::awaitable<Output> shadow(const Input& in, Options options) {
  ObserverOptions observer = observer_options(in, options);
  options.finish();
  AsyncValue cua_fn = required(host_function("cua_fn", in.functions.cua_fn, in.host), "cua_fn");
  const auto page = in.page();
  json::value value = co_await shadow_observe_then_cua(*page, std::move(cua_fn), std::move(observer));
  co_return Output(std::move(value));
}

asio::awaitable<Output> observe(const Input& in, Options options) {
  ObserverOptions observer = observer_options(in, options);
  if (auto value = options.object("dom_ground_truth")) observer.dom_ground_truth(std::move(*value));
  options.finish();
  const auto page = in.page();
  json::object record = co_await observe_only(*page, std::move(observer));
  co_return Output(std::move(record));
}

using CuaFallback = std::function<asio::awaitable<json::value>(BrowserPage&, const FlowContext&, const std::string&)>;

CuaFallback cua_fallback(const Input& in) {
  const auto function = in.functions.cua_fallback;
  if (!function) return nullptr;
  return [function, host = in.host](BrowserPage&, const FlowContext& context, const std::string& reason) {
    return value_from_host("cua_fallback", [=, text = text::to_json(context)](vision_reply reply) {
      call_host(function, host, text.c_str(), text.size(), reason.c_str(), reason.size(), reply);
    });
  };
}

json::object rescued(FallbackResult<json::value, json::value> result) {
  switch (result.way()) {
    case FallbackWay::step: return {{"way", "step"}, {"value", std::move(result.step())}};
    case FallbackWay::rescued: return {{"way", "rescued"}, {"value", std::move(result.step())}};
    case FallbackWay::verdict: return {{"way", "verdict"}, {"value", to_json(result.verdict())}};
    case FallbackWay::agent: break;
  }
  return {{"way", "agent"}, {"value", std::move(result.agent())}};
}

asio::awaitable<Output> fallback(const Input& in, Options options) {
  FlowContext context = flow_context(options);
  FallbackOptions fallback(std::move(context));
  if (const auto value = options.flag("high_stakes")) fallback.high_stakes(*value);
  options.finish();
  AsyncValue primary_fn = required(host_function("primary_fn", in.functions.primary_fn, in.host), "primary_fn");
  CuaFallback agent = cua_fallback(in);
  fallback.vision(in.client());
  const auto page = in.page();
  auto result = co_await with_vision_fallback(*page, std::move(primary_fn), std::move(fallback), std::move(agent));
  co_return Output(rescued(std::move(result)));
}

constexpr std::array<Kind, 9> kinds = {{{"ask", true, ask},
                                        {"act", true, act},
                                        {"screenshot", true, screenshot},
                                        {"execute_action", false, execute},
                                        {"act_loop", true, mission},
                                        {"shadow_observe_then_cua", true, shadow},
                                        {"observe_only", true, observe},
                                        {"observe_in_background", true, observe},
                                        {"with_vision_fallback", true, fallback}}};

}  // namespace

std::span<const Kind> model_operations() {
  return kinds;
}

}  // namespace vision::c
