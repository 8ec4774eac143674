#pragma once

#include <boost/asio/io_context.hpp>

#include "vision/runtime/time.hpp"

namespace vision::soak {

namespace asio = boost::asio;

/// The system's time, `speed` times as fast. Counts the waits under way.
class FastTime : public runtime::TimeSource {
 public:
  explicit FastTime(int speed) : speed_(speed) {}

  runtime::Duration steady_now() const override { return real_.steady_now() * speed_; }
  runtime::Duration wall_now() const override { return real_.wall_now(); }

  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, runtime::Duration delay,
                                             std::function<void()> callback) override {
    const auto counted = [waiting = waiting_, callback = std::move(callback)] { callback(); };
    return real_.call_after(executor, delay / speed_, counted);
  }

  /// From any thread.
  long pending() const { return waiting_.use_count() - 1; }

 private:
  const int speed_;
  asio::io_context untouched_;  // a context without its own time source uses the system's
  runtime::TimeSource& real_ = runtime::time_source(untouched_.get_executor());
  const std::shared_ptr<void> waiting_ = std::make_shared<int>();
};

}  // namespace vision::soak
