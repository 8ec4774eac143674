#include <boost/asio/this_coro.hpp>

#include "vision/client/api_error.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/client/vision_client.hpp"
#include "vision/runtime/internal/deadline.hpp"
#include "vision/runtime/internal/entry.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision {
namespace asio = boost::asio;

/// What one call carries from its start to its result.
struct VisionClient::Call {
  Call(const std::string& model_name, const ImgMeta& meta, const FlowContext& context, runtime::TimeSource& time_source)
      : model(model_name), img_meta(meta), flow_context(context), time(time_source), t0(time.wall_now()) {}

  double elapsed_ms() const { return runtime::to_seconds(time.wall_now() - t0) * 1000.0; }

  const std::string& model;
  const ImgMeta& img_meta;
  const FlowContext& flow_context;
  runtime::TimeSource& time;
  runtime::Duration t0;
};

namespace {

// Coroutines, so that what the host's code throws before it suspends takes the
// same way as what it throws later.
asio::awaitable<boost::json::value> send(MessagesClient& client, const MessagesRequest& request) {
  co_return co_await client.create(request);
}

auto boxed(ActionResult result) {
  return std::make_unique<ActionResult>(std::move(result));
}

asio::awaitable<void> call_hook(const OnAction& hook, const ActionResult& result, const FlowContext& flow_context) {
  co_await hook(result, flow_context);
}

}  // namespace

asio::awaitable<ActionResult> VisionClient::ask(Bytes image, ImgMeta img_meta, const FlowContext& flow_context,
                                                AskOptions options) {
  return runtime::entry(ask_owning(std::move(image), img_meta, flow_context, std::move(options)));
}

auto VisionClient::ask_owning(Bytes image, ImgMeta img_meta, const FlowContext& flow_context, AskOptions options)
    -> asio::awaitable<Answer> {
  co_return co_await ask_body(std::move(image), img_meta, flow_context, options);
}

auto VisionClient::ask_body(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                            const AskOptions& options) -> asio::awaitable<Answer> {
  if (metrics.call_count >= _call_budget) throw BudgetExceeded(_call_budget);
  const MessagesRequest request = make_request(std::move(image), img_meta, flow_context, options);
  const auto executor = co_await asio::this_coro::executor;
  const Call call(request.model(), img_meta, flow_context, runtime::time_source(executor));
  const auto limit = runtime::to_duration(options.timeout_s().value());

  const int attempts = options.transport_retry() ? 2 : 1;
  Answer result;
  for (int attempt = 1; !result && attempt <= attempts; ++attempt) {
    if (attempt > 1) co_await runtime::sleep_for(runtime::to_duration(TRANSPORT_RETRY_DELAY_S));
    auto response = co_await runtime::with_deadline(send(*_client, request), limit);
    std::exception_ptr error = response.error();
    if (response.has_value()) result = accept(response.value(), call, error);
    if (result) {
      co_await run_hook(*result, flow_context);
      _log_call(*result, flow_context);
    } else {
      result = give_up(call, error, attempt == attempts, options);
    }
  }
  if (!result) result = boxed(_failure("unreachable retry branch exhausted", call.model, 0.0));
  co_return result;
}

MessagesRequest VisionClient::make_request(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                                           const AskOptions& options) {
  const std::string model = _pick_model(flow_context, options.high_stakes(), _default_model);
  auto& prefix = prefixes_[model];
  if (!prefix) prefix = std::make_shared<const std::string>(request_prefix(model));
  return {model, prefix, std::move(image), _build_user_message(flow_context, options.prompt(), img_meta)};
}

// Of an attempt that failed. Null when it is to be tried again; a time-out has no error.
VisionClient::Answer VisionClient::give_up(const Call& call, const std::exception_ptr& error, bool is_last,
                                           const AskOptions& options) {
  const double latency_ms = call.elapsed_ms();
  if (!error) {
    log::line(spdlog::level::warn, "vision: timeout after %.0fms (model=%s, workflow=%s)", latency_ms, call.model,
              [&] { return detail::context_text(call.flow_context, "workflow_name", "?"); });
    return boxed(_failure("vision timeout after " + options.timeout_s().text() + "s", call.model, latency_ms));
  }
  const std::string error_text = text::full_exception_text(error);
  if (!is_transport_error(error)) {
    log::error_with_stack("vision: unexpected error", error_text);
    return boxed(_failure("unexpected error: " + error_text, call.model, latency_ms));
  }
  if (is_last) return boxed(_failure("transport error: " + error_text, call.model, latency_ms));
  log::line(spdlog::level::info, "vision: transport error, retrying once: %s",
            [&] { return text::describe(error).message; });
  return nullptr;
}

// Parses and records without suspending, so that a call is either cancelled or
// recorded.
VisionClient::Answer VisionClient::accept(const boost::json::value& response, const Call& call,
                                          std::exception_ptr& error) {
  try {
    auto result = boxed(_parse_response(response, call.model, call.elapsed_ms(), call.img_meta));
    metrics.record(*result);
    return result;
  } catch (...) {
    error = std::current_exception();
    return nullptr;
  }
}

asio::awaitable<void> VisionClient::run_hook(const ActionResult& result, const FlowContext& flow_context) {
  if (!_on_action) co_return;
  const auto hook = co_await runtime::settle(runtime::done(call_hook(_on_action, result, flow_context)));
  if (!hook.error()) co_return;
  log::line(spdlog::level::warn, "on_action hook raised: %s", [&] { return text::describe(hook.error()).message; });
}

ActionResult VisionClient::_failure(std::string reason, const std::string& model, double latency_ms,
                                    std::int64_t in_tok, std::int64_t out_tok) {
  ActionResult result = _failure_result(std::move(reason), model, latency_ms, in_tok, out_tok);
  metrics.record(result);
  return result;
}

void VisionClient::_log_call(const ActionResult& result, const FlowContext& flow_context) const {
  constexpr std::size_t reason_code_points = 80;
  log::line(
      spdlog::level::info,
      "vision: action=%s confidence=%.2f workflow=%s phase=%s model=%s latency_ms=%.0f tokens=%d/%d reason=%s",
      result.action, result.confidence, [&] { return detail::context_text(flow_context, "workflow_name", "?"); },
      [&] { return detail::context_text(flow_context, "phase", "?"); }, result.model_used, result.latency_ms,
      result.input_tokens, result.output_tokens,
      [&] { return std::string(text::first_code_points(result.reason, reason_code_points)); });
}

}  // namespace vision
