#include "vision/page/execute_action.hpp"

#include <stdexcept>

#include "vision/page/internal/carry_out.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

constexpr std::chrono::milliseconds stroke_delay{20};
constexpr double default_scroll_ratio = 0.5;
constexpr std::int64_t default_wait_ms = 500;

void require(bool present, const char* message) {
  if (!present) throw std::invalid_argument(message);
}

asio::awaitable<void> execute_body(BrowserPage& page, ActionResult result, ImgMeta img_meta) {
  auto carried_out = co_await runtime::try_await(detail::carry_out(page, std::move(result), img_meta));
  carried_out.value();  // or its error
}

}  // namespace

namespace detail {

asio::awaitable<void> carry_out(BrowserPage& page, ActionResult result, ImgMeta img_meta) {
  const std::string_view action = result.action;
  if (action == ActionVerb::click) {
    require(result.x_ratio && result.y_ratio, "click action requires x_ratio + y_ratio");
    const double x = *result.x_ratio * static_cast<double>(img_meta.width_css);
    const double y = *result.y_ratio * static_cast<double>(img_meta.height_css);
    co_await page.mouse().click(x, y);
  } else if (action == ActionVerb::type) {
    require(result.text.has_value(), "type action requires text");
    co_await page.keyboard().type(*result.text, stroke_delay);
  } else if (action == ActionVerb::scroll) {
    const double ratio = result.scroll_dy_ratio.value_or(0.0);
    const double dy = (ratio != 0.0 ? ratio : default_scroll_ratio) * static_cast<double>(img_meta.height_css);
    co_await page.mouse().wheel(0, dy);
  } else if (action == ActionVerb::key) {
    require(result.key.has_value(), "key action requires key");
    co_await page.keyboard().press(*result.key);
  } else if (action == ActionVerb::wait) {
    const std::int64_t given_ms = result.duration_ms.value_or(0);
    const std::int64_t ms = given_ms != 0 ? given_ms : default_wait_ms;
    co_await runtime::sleep_for(runtime::to_duration(static_cast<double>(ms) / 1000.0));
  }
}

}  // namespace detail

asio::awaitable<void> execute_action(BrowserPage& page, ActionResult result, ImgMeta img_meta) {
  return runtime::with_own_cancellation(execute_body(page, std::move(result), img_meta));
}

}  // namespace vision
