#include "vision/wirein/fallback.hpp"

#include "vision/client/internal/client_core.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/observation.hpp"

namespace vision::detail {
namespace asio = boost::asio;
namespace {

asio::awaitable<FallbackEnding> fallback_body(BrowserPage& page, RunStep run_step, const FallbackOptions options,
                                              RunAgent run_agent) {
  ClientCore& client = client_of(options)._core();
  const auto first = co_await runtime::try_await(run_step());
  if (first.has_value()) co_return FallbackEnding();

  FlowContext context = options.flow_context();
  context["context_hint"] = "playwright failed: " + text::exception_text(first.error());
  const auto ask_options = AskOptions().high_stakes(options.high_stakes());
  ActionResult result = co_await client.act(page, context, ask_options);
  FallbackEnding ending;
  if (result.action == ActionVerb::declare_success) {
    ending.way = FallbackWay::verdict;
    ending.verdict = std::move(result);
  } else if (ActionVerb::is_verdict(result.action) || result.low_confidence) {
    if (!run_agent) std::rethrow_exception(first.error());
    auto handed_over = co_await runtime::try_await(run_agent(page, context, result.reason));
    handed_over.value();  // or its error
    ending.way = FallbackWay::agent;
  } else {
    // The page may have been resized since the screenshot that the model saw.
    const auto shot = co_await client.screenshot(page);
    co_await execute_action(page, result, shot.second);
    auto again = co_await runtime::try_await(run_step());
    again.value();  // or its error
    ending.way = FallbackWay::rescued;
  }
  co_return ending;
}

}  // namespace

asio::awaitable<FallbackEnding> run_fallback(BrowserPage& page, RunStep run_step, FallbackOptions options,
                                             RunAgent run_agent) {
  return runtime::with_own_cancellation(
      fallback_body(page, std::move(run_step), std::move(options), std::move(run_agent)));
}

}  // namespace vision::detail
