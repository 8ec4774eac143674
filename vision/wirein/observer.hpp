#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <functional>
#include <memory>

#include "vision/page/browser_page.hpp"
#include "vision/wirein/observer_options.hpp"

namespace vision {

/// After a scripted step that succeeded: asks vision what it would have done on
/// the same screen, appends the answer beside the step's own ground truth to the
/// shadow log, and returns that record. Takes one screenshot and asks once, within
/// DEFAULT_TIMEOUT_S + 8 seconds in all; never touches the page. Failures are recorded.
///
/// Throws only what default_client() throws when no client is given. Cancellation
/// ends it; no record is written then. `page` must outlive the operation.
boost::asio::awaitable<boost::json::object> observe_only(BrowserPage& page, ObserverOptions options);

/// Starts observe_only on `executor`, detached. The page is kept alive until its
/// screenshot is taken and not longer; if the page is already gone, the observation
/// fails and is recorded so. A client given in the options must outlive the
/// observation. When the execution context is destroyed first, the observation ends
/// there, without a record.
///
/// `on_end`, when set, receives the record, or the error that default_client() threw;
/// without it such an error is logged as a warning. What `on_end` itself throws is
/// logged as a warning too. Returns at once and never throws. It cannot be cancelled;
/// the time limit of observe_only holds.
void observe_in_background(const boost::asio::any_io_executor& executor, std::weak_ptr<BrowserPage> page,
                           ObserverOptions options,
                           std::function<void(std::exception_ptr, boost::json::object)> on_end = nullptr) noexcept;

}  // namespace vision
