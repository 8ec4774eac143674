#include "vision/runtime/internal/one_shot.hpp"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

namespace vision::runtime {
namespace asio = boost::asio;

OneShot::OneShot(const asio::any_io_executor& executor)
    : timer_(executor, IoTimer::time_point::max()), set_(std::make_shared<bool>(false)) {}

void OneShot::set() {
  *set_ = true;
  timer_.cancel();
}

asio::awaitable<void> OneShot::wait() {
  const auto set = set_;
  if (*set) co_return;
  boost::system::error_code error;
  co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, error));
  if (!*set) throw boost::system::system_error(asio::error::operation_aborted);
}

}  // namespace vision::runtime
