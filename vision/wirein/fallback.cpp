#include "vision/wirein/fallback.hpp"

#include "vision/page/execute_action.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision {
namespace asio = boost::asio;

asio::awaitable<void> NoFallback::operator()(BrowserPage&, const FlowContext&, const std::string&) const {
  co_return;
}

namespace detail {

VisionClient& client_of(const FallbackOptions& options) {
  return options.vision() ? *options.vision() : default_client();
}

asio::awaitable<Rescue> rescue(VisionClient& client, BrowserPage& page, const FallbackOptions& options,
                               std::exception_ptr failure) {
  FlowContext context = options.flow_context();
  context["context_hint"] = "playwright failed: " + text::exception_text(failure);
  const auto ask_options = AskOptions().high_stakes(options.high_stakes());
  ActionResult result = co_await client.act(page, context, ask_options);
  if (result.action == ActionVerb::declare_success) {
    co_return Rescue(NextStep::verdict, std::move(result), std::move(context));
  }
  if (ActionVerb::is_verdict(result.action) || result.low_confidence) {
    co_return Rescue(NextStep::hand_over, std::move(result), std::move(context));
  }
  const auto shot = co_await client.screenshot(page);
  auto action = runtime::done(execute_action(page, result, shot.second));
  co_await runtime::isolated(std::move(action));
  co_return Rescue(NextStep::run_again, std::move(result), std::move(context));
}

}  // namespace detail
}  // namespace vision
