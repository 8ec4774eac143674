#include "vision/client/internal/client_core.hpp"

#include <boost/asio/this_coro.hpp>
#include <cmath>
#include <stdexcept>

#include "vision/client/api_error.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/records/internal/coercion.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail {
namespace asio = boost::asio;

/// What one call carries from its start to its result.
struct ClientCore::Call {
  double elapsed_ms() const { return runtime::to_seconds(time.wall_now() - t0) * 1000.0; }

  const std::string& model;
  const ImgMeta& img_meta;
  const FlowContext& flow_context;
  const AskOptions& options;
  runtime::TimeSource& time;
  const runtime::Duration t0 = time.wall_now();
};

/// What became of one attempt.
struct ClientCore::Attempt {
  enum class Next {
    done,     ///< there was a response: `result` is what it says
    give_up,  ///< `result` is the failure of the call
    retry,    ///< once more; `result` is empty
  };
  Next next;
  ActionResult result;
};

namespace {

// Host code is called inside a coroutine, so that what it throws before it suspends
// takes the same way as what it throws later.

asio::awaitable<Bytes> take_screenshot(BrowserPage& page, ScreenshotOptions options) {
  co_return co_await page.screenshot(options);
}

asio::awaitable<double> device_pixel_ratio(BrowserPage& page) {
  const boost::json::value answer = co_await page.evaluate("window.devicePixelRatio");
  co_return _opt_float(&answer).value_or(std::nan(""));
}

asio::awaitable<boost::json::value> send(MessagesClient& client, const MessagesRequest& request) {
  co_return co_await client.create(request);
}

asio::awaitable<void> call_hook(const OnAction& hook, const ActionResult& result, const FlowContext& flow_context) {
  co_await hook(result, flow_context);
}

std::int64_t viewport_side(const boost::json::object& size, std::string_view name) {
  const auto* value = size.if_contains(name);
  if (!value) throw std::out_of_range("the page's viewport_size has no \"" + std::string(name) + "\"");
  if (const auto side = _opt_int(value)) return *side;
  throw ConversionError("the page's viewport " + std::string(name) + " is not a number: " + text::to_json(*value));
}

}  // namespace

ClientCore::ClientCore(VisionMetrics& metrics, std::shared_ptr<MessagesClient> client,
                       const VisionClientOptions& options)
    : _metrics(metrics),
      _client(std::move(client)),
      _default_model(options.default_model().value_or(MODEL_SONNET())),
      _call_budget(options.call_budget()),
      _on_action(options.on_action()) {
  if (!_client) throw std::invalid_argument("VisionClient: the MessagesClient is null");
}

asio::awaitable<std::pair<Bytes, ImgMeta>> ClientCore::screenshot(BrowserPage& page, bool full_page) {
  const auto options = ScreenshotOptions().full_page(full_page);
  auto image = co_await runtime::try_await(take_screenshot(page, options));
  if (image.error()) std::rethrow_exception(image.error());
  auto ratio = co_await runtime::try_await(device_pixel_ratio(page));
  const double dpr = ratio.has_value() && std::isfinite(ratio.value()) ? ratio.value() : 1.0;
  auto size = page.viewport_size();
  if (!size || size->empty()) size = boost::json::object{{"width", 1280}, {"height", 800}};
  const std::int64_t width = viewport_side(*size, "width"), height = viewport_side(*size, "height");
  const auto executor = co_await asio::this_coro::executor;
  const double captured_at = runtime::to_seconds(runtime::time_source(executor).wall_now());
  co_return std::pair<Bytes, ImgMeta>(std::move(image.value()), ImgMeta(width, height, dpr, captured_at));
}

asio::awaitable<ActionResult> ClientCore::act(BrowserPage& page, const FlowContext& flow_context, AskOptions options) {
  auto [image, meta] = co_await screenshot(page, false);
  FlowContext context = flow_context;
  if (!context.contains("viewport")) {
    auto& viewport = context["viewport"].emplace_object();
    viewport["w"] = meta.width_css;
    viewport["h"] = meta.height_css;
    viewport["dpr"] = meta.dpr;
  }
  options.transport_retry(true);
  co_return co_await ask(std::move(image), meta, context, options);
}

asio::awaitable<ActionResult> ClientCore::ask(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                                              const AskOptions& options) {
  if (_metrics.call_count >= _call_budget) throw BudgetExceeded(_call_budget);
  const MessagesRequest request = make_request(std::move(image), img_meta, flow_context, options);
  const auto executor = co_await asio::this_coro::executor;
  const Call call{request.model(), img_meta, flow_context, options, runtime::time_source(executor)};
  const auto limit = runtime::to_duration(options.timeout_s().value());

  const int attempts = options.transport_retry() ? 2 : 1;
  for (int number = 1; number <= attempts; ++number) {
    auto response = co_await runtime::with_deadline(send(*_client, request), limit);
    Attempt attempt = conclude(response, call, number < attempts);
    if (attempt.next == Attempt::Next::retry) {
      co_await runtime::sleep_for(runtime::to_duration(TRANSPORT_RETRY_DELAY_S));
      continue;
    }
    if (attempt.next == Attempt::Next::done) {
      co_await run_hook(attempt.result, flow_context);
      _log_call(attempt.result, flow_context);
    }
    co_return std::move(attempt.result);
  }
  co_return _failure(Cause::unexpected_error, "unreachable retry branch exhausted", call.model, 0.0);
}

MessagesRequest ClientCore::make_request(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                                         const AskOptions& options) {
  const std::string model = _pick_model(flow_context, options.high_stakes(), _default_model);
  auto& prefix = _prefixes[model];
  if (!prefix) prefix = std::make_shared<const std::string>(request_prefix(model));
  return {model, prefix, std::move(image), _build_user_message(flow_context, options.prompt(), img_meta)};
}

// Parses and records without suspending, so that a call is either cancelled or
// recorded.
ClientCore::Attempt ClientCore::conclude(runtime::Outcome<boost::json::value>& response, const Call& call,
                                         bool may_retry) {
  if (response.timed_out()) return {Attempt::Next::give_up, timed_out(call)};
  try {
    ActionResult result = _parse_response(response.value(), call.model, call.elapsed_ms(), call.img_meta);
    _metrics.record(result);
    return {Attempt::Next::done, std::move(result)};
  } catch (...) {
    return failed(call, std::current_exception(), may_retry);
  }
}

ActionResult ClientCore::timed_out(const Call& call) {
  const double latency_ms = call.elapsed_ms();
  log::line(spdlog::level::warn, "vision: timeout after %.0fms (model=%s, workflow=%s)", latency_ms, call.model,
            [&] { return context_text(call.flow_context, "workflow_name", "?"); });
  return _failure(Cause::call_timed_out, "vision timeout after " + call.options.timeout_s().text() + "s", call.model,
                  latency_ms);
}

ClientCore::Attempt ClientCore::failed(const Call& call, const std::exception_ptr& error, bool may_retry) {
  const double latency_ms = call.elapsed_ms();
  const std::string error_text = text::full_exception_text(error);
  if (!is_transport_error(error)) {
    log::error_with_stack("vision: unexpected error", error_text);
    return {Attempt::Next::give_up,
            _failure(Cause::unexpected_error, "unexpected error: " + error_text, call.model, latency_ms)};
  }
  if (!may_retry) {
    return {Attempt::Next::give_up,
            _failure(Cause::transport_error, "transport error: " + error_text, call.model, latency_ms)};
  }
  log::line(spdlog::level::info, "vision: transport error, retrying once: %s",
            [&] { return text::describe(error).message; });
  return {Attempt::Next::retry, {}};
}

asio::awaitable<void> ClientCore::run_hook(const ActionResult& result, const FlowContext& flow_context) {
  if (!_on_action) co_return;
  const auto hook = co_await runtime::try_await(call_hook(_on_action, result, flow_context));
  if (!hook.error()) co_return;
  log::line(spdlog::level::warn, "on_action hook raised: %s", [&] { return text::describe(hook.error()).message; });
}

ActionResult ClientCore::_failure(Cause cause, std::string reason, const std::string& model, double latency_ms) {
  ActionResult result = _failure_result(cause, std::move(reason), model, latency_ms);
  _metrics.record(result);
  return result;
}

void ClientCore::_log_call(const ActionResult& result, const FlowContext& flow_context) const {
  constexpr std::size_t reason_code_points = 80;
  log::line(
      spdlog::level::info,
      "vision: action=%s confidence=%.2f workflow=%s phase=%s model=%s latency_ms=%.0f tokens=%d/%d reason=%s",
      result.action, result.confidence, [&] { return context_text(flow_context, "workflow_name", "?"); },
      [&] { return context_text(flow_context, "phase", "?"); }, result.model_used, result.latency_ms,
      result.input_tokens, result.output_tokens,
      [&] { return std::string(text::first_code_points(result.reason, reason_code_points)); });
}

}  // namespace vision::detail
