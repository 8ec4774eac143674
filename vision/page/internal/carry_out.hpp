#pragma once

#include <boost/asio/awaitable.hpp>

#include "vision/page/browser_page.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/img_meta.hpp"

namespace vision::detail {

/// execute_action for a caller that isolates the page's code itself: it runs in the
/// caller's own cancellation state.
boost::asio::awaitable<void> carry_out(BrowserPage& page, ActionResult result, ImgMeta img_meta);

}  // namespace vision::detail
