#include "chromium/events/probe.hpp"

#include <utility>

#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;

PageProbe::PageProbe(std::shared_ptr<Session> session) : session_(std::move(session)) {}

asio::awaitable<void> PageProbe::ask(std::chrono::milliseconds limit) {
  const char* const script = "({size: {width: innerWidth, height: innerHeight}, ratio: devicePixelRatio})";
  auto asked = session_->command("Runtime.evaluate", make_object("expression", script, "returnByValue", true), limit);
  auto outcome = co_await runtime::try_await(std::move(asked));
  answered_ = outcome.has_value();
  if (!answered_ || outcome.value().contains("exceptionDetails")) co_return;
  const json::value answer = evaluated_value(std::move(outcome.value()));
  if (!answer.is_object()) co_return;
  if (const auto* ratio = answer.get_object().if_contains("ratio"); ratio && ratio->is_number()) ratio_ = *ratio;
  const json::object& size = object_of(answer.get_object(), "size");
  if (size.contains("width") && size.contains("height")) size_ = size;
}

}  // namespace vision::chromium
