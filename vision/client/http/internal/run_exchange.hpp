#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <memory>

#include "vision/client/http/internal/curl_driver.hpp"

namespace vision::detail::http {

/// The driver of an executor's context, made on first use. It closes with the
/// context; the pointer may outlive that.
std::shared_ptr<CurlDriver> driver_of(const boost::asio::any_io_executor& executor);

/// Runs `exchange` to its end. Any kind of cancellation that reaches it ends it at
/// once with operation_aborted. The pointers must not be null.
boost::asio::awaitable<void> run(std::shared_ptr<CurlDriver> driver, std::shared_ptr<Exchange> exchange);

}  // namespace vision::detail::http
