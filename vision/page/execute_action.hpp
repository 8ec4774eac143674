#pragma once

#include <boost/asio/awaitable.hpp>

#include "vision/page/browser_page.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/img_meta.hpp"

namespace vision {

/// Carries out one result on the page: at most one page operation or one wait.
/// Ratios become CSS pixels of `img_meta`'s viewport here and nowhere else.
///
///   click   mouse().click at (x_ratio * width_css, y_ratio * height_css)
///   type    keyboard().type with 20 ms between strokes
///   scroll  mouse().wheel by scroll_dy_ratio viewport heights; not set or zero: 0.5
///   key     keyboard().press
///   wait    duration_ms milliseconds; not set or zero: 500; not capped
///
/// Verdicts and unknown verbs do nothing. Throws std::invalid_argument when the field
/// that the action needs is not set, before acting; page errors propagate. `page` must
/// outlive the operation. If the caller is cancelled, with any cancellation type its
/// coroutine accepts, the operation ends with operation_aborted.
boost::asio::awaitable<void> execute_action(BrowserPage& page, ActionResult result, ImgMeta img_meta);

}  // namespace vision
