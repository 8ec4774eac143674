#include "chromium/events/probe.hpp"

#include <exception>
#include <utility>

#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

constexpr const char* size_and_ratio = "{size: {width: innerWidth, height: innerHeight}, ratio: devicePixelRatio}";

// How the browser ends a script of which the document goes.
bool is_gone_document(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const ProtocolError& refusal) {
    return refusal.browser_message().starts_with("Inspected target navigated or closed");
  } catch (...) {
    return false;
  }
}

// A page may replace what the script uses.
json::value value_or_null(const json::object& result) {
  try {
    return evaluated_value(result);
  } catch (const BrowserError&) {
    return {};
  }
}

}  // namespace

PageProbe::PageProbe(std::shared_ptr<Session> session) : session_(std::move(session)) {}

asio::awaitable<void> PageProbe::measure() {
  std::string script = std::string("(") + size_and_ratio + ")";
  remember(co_await ask(std::move(script), short_limit));
}

asio::awaitable<void> PageProbe::wait_for_picture() {
  std::string script = fonts_.before(size_and_ratio);
  json::value answer = co_await ask(std::move(script), navigation_limit);
  remember(fonts_.value_in(std::move(answer)));
}

// A document that goes ends its scripts; the next one is asked as well.
asio::awaitable<json::value> PageProbe::ask(std::string script, std::chrono::milliseconds limit) {
  for (const bool is_last : {false, true}) {
    auto asked = session_->command("Runtime.evaluate", evaluation(script), limit);
    auto outcome = co_await runtime::try_await(std::move(asked));
    answered_ = outcome.has_value();
    if (answered_) co_return value_or_null(outcome.value());
    if (is_last || !is_gone_document(outcome.error())) break;
  }
  co_return json::value();
}

void PageProbe::remember(const json::value& answer) {
  if (!answer.is_object()) return;
  if (const auto* ratio = answer.get_object().if_contains("ratio"); ratio && ratio->is_number()) ratio_ = *ratio;
  const json::object& size = object_of(answer.get_object(), "size");
  if (size.contains("width") && size.contains("height")) size_ = size;
}

}  // namespace vision::chromium
