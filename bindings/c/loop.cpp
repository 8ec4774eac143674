#include "bindings/c/loop.hpp"

#include <signal.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "bindings/c/operation.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::c {
namespace {

thread_local Loop* loop_of_this_thread = nullptr;

}  // namespace

Loop* Loop::current() noexcept {
  return loop_of_this_thread;
}

Loop::Loop() : io_(std::make_unique<asio::io_context>(1)), process_(::getpid()), gate_([this] { post([] {}); }) {}

// The thread inherits that all signals are blocked: no handler of the host's runs on it.
std::shared_ptr<Loop> Loop::start() {
  const std::shared_ptr<Loop> loop(new Loop);
  sigset_t all, previous;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  std::exception_ptr failure;
  try {
    std::thread([loop] { loop->thread_body(); }).detach();
  } catch (...) {
    failure = std::current_exception();
  }
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (failure) std::rethrow_exception(failure);
  return loop;
}

void Loop::thread_body() {
  loop_of_this_thread = this;
  gate_.begin();
  serve();
  while (!residents_.empty()) residents_.erase(residents_.begin());
  {
    const std::lock_guard lock(defaults.mutex);
    defaults.client = nullptr;  // which keeps us
  }
  std::unique_lock lock(mutex_);
  auto io = std::move(io_);
  lock.unlock();
  io.reset();
  gate_.end();
  lock.lock();
  is_over_ = true;
  over_.notify_all();
}

void Loop::serve() {
  const auto work = asio::make_work_guard(*io_);
  while (!io_->stopped()) {
    try {
      while (io_->run_one() > 0) gate_.pass();
    } catch (...) {
      log::error_with_stack("vision: an error left the event loop",
                            text::full_exception_text(std::current_exception()));
    }
  }
}

void Loop::run(const std::function<void()>& job) {
  if (current() == this) return job();
  std::promise<void> promise;
  auto done = promise.get_future();
  post([&job, promise = std::move(promise)]() mutable {
    job();
    promise.set_value();
  });
  try {
    done.get();
  } catch (const std::future_error&) {
    job();  // the loop ended before it got to it
  }
}

bool Loop::begin(const std::shared_ptr<Operation>& operation) {
  const std::lock_guard lock(mutex_);
  if (ending_) return false;
  asio::post(*io_, [this, operation] {
    operations_.insert(operation);
    operation->start();
  });
  return true;
}

void Loop::ended(const std::shared_ptr<Operation>& operation) {
  operations_.erase(operation);
  stop_when_idle();
}

void Loop::end() {
  if (process_ != ::getpid()) return;
  std::unique_lock lock(mutex_);
  if (!ending_) {
    ending_ = true;
    asio::post(*io_, [this] { cancel_all(); });
  }
  if (current() != this) over_.wait(lock, [this] { return is_over_; });
}

void Loop::cancel_all() {
  const auto in_flight = operations_;
  for (const auto& operation : in_flight) operation->cancel();
  stop_when_idle();
}

void Loop::stop_when_idle() {
  const std::lock_guard lock(mutex_);
  if (ending_ && operations_.empty()) io_->stop();
}

std::uint64_t Loop::keep(std::shared_ptr<void> object) {
  residents_.emplace(++last_resident_, std::move(object));
  return last_resident_;
}

std::shared_ptr<void> Loop::resident(std::uint64_t id) const {
  const auto found = residents_.find(id);
  return found == residents_.end() ? nullptr : found->second;
}

void Loop::drop(std::uint64_t id) {
  post([this, id] { residents_.erase(id); });
}

}  // namespace vision::c
