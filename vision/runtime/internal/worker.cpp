#include "vision/runtime/internal/worker.hpp"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>

#include "vision/runtime/internal/context_local.hpp"
#include "vision/runtime/internal/one_shot.hpp"
#include "vision/runtime/time.hpp"

namespace vision::runtime {
namespace asio = boost::asio;
namespace {

// Guards all that the event loops' threads share with the worker thread. Held while any
// thread forks, so that the child finds it free, and the worker outside the host's event
// loop, which notify_fork() requires of other threads and a host could not see to. Never
// held while jobs or host code run.
constinit std::mutex mutex;

struct Waiter {
  asio::any_io_executor executor;
  OneShot* finished;
  std::exception_ptr* error;
};

// Who waits for which job in one context. The worker thread must not touch an
// executor whose context is gone, so the way back leads through this table,
// which the context empties when it shuts down.
class Waiters {
 public:
  std::uint64_t add(Waiter waiter) {
    const std::lock_guard lock(mutex);
    table_.emplace(++last_id_, std::move(waiter));
    return last_id_;
  }

  void remove(std::uint64_t id) {
    const std::lock_guard lock(mutex);
    table_.erase(id);
  }

  std::size_t size() {
    const std::lock_guard lock(mutex);
    return table_.size();
  }

  void close() {
    const std::lock_guard lock(mutex);
    table_.clear();
  }

  // On the worker thread.
  static void notify(const std::shared_ptr<Waiters>& self, std::uint64_t id, std::exception_ptr error) {
    const std::lock_guard lock(mutex);
    const auto found = self->table_.find(id);
    if (found == self->table_.end()) return;
    asio::post(found->second.executor, [self, id, error] { self->finish(id, error); });
  }

 private:
  // On the waiter's executor, where alone it is removed.
  void finish(std::uint64_t id, const std::exception_ptr& error) {
    std::unique_lock lock(mutex);
    const auto found = table_.find(id);
    if (found == table_.end()) return;
    const Waiter waiter = found->second;
    lock.unlock();
    *waiter.error = error;
    waiter.finished->set();
  }

  std::map<std::uint64_t, Waiter> table_;
  std::uint64_t last_id_ = 0;
};

// The table of one context.
struct ContextWaiters {
  std::shared_ptr<Waiters> table = std::make_shared<Waiters>();
  void shutdown() { table->close(); }
};

struct Registration {
  std::shared_ptr<Waiters> waiters;
  std::uint64_t id;
  Registration(std::shared_ptr<Waiters> w, Waiter waiter)
      : waiters(std::move(w)), id(waiters->add(std::move(waiter))) {}
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
  ~Registration() { waiters->remove(id); }
};

struct AllSignalsBlocked {
  AllSignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  sigset_t previous;
};

class Worker {
 public:
  void run(std::function<void()> job) {
    if (waiting_.fetch_add(1) >= max_waiting_jobs) {
      waiting_.fetch_sub(1);
      throw std::runtime_error("the worker thread has " + std::to_string(max_waiting_jobs) + " jobs waiting");
    }
    asio::post(thread_, [this, job = std::move(job)]() mutable {
      job();
      job = nullptr;  // with all that it holds, before another may take its place
      waiting_.fetch_sub(1);
    });
  }

 private:
  asio::thread_pool thread_{1};
  std::atomic<std::size_t> waiting_ = 0;
};

// Never destroyed: coroutines on other threads may hand over jobs while the
// process exits.
Worker* own_worker = nullptr;

// The host's signal handlers do not run on the thread.
Worker& worker() {
  const std::lock_guard lock(mutex);
  if (!own_worker) {
    const AllSignalsBlocked blocked;  // inherited by the thread
    own_worker = new Worker;
  }
  return *own_worker;
}

void before_fork() {
  mutex.lock();
}

void after_fork() {
  mutex.unlock();
}

// The child inherits the worker without its thread.
void after_fork_in_child() {
  own_worker = nullptr;
  mutex.unlock();
}

[[maybe_unused]] const int fork_handlers = ::pthread_atfork(before_fork, after_fork, after_fork_in_child);

}  // namespace

asio::awaitable<void> run_on_worker(std::function<void()> job) {
  const auto executor = co_await asio::this_coro::executor;
  const auto waiters = context_local<ContextWaiters>(executor).table;
  OneShot finished(executor);
  std::exception_ptr error;
  const Registration registration(waiters, Waiter{executor, &finished, &error});
  auto guarded = [waiters, id = registration.id, job = std::move(job)] {
    std::exception_ptr failure;
    try {
      job();
    } catch (...) {
      failure = std::current_exception();
    }
    Waiters::notify(waiters, id, std::move(failure));
  };
  worker().run(std::move(guarded));
  co_await finished.wait();
  if (error) std::rethrow_exception(error);
}

std::size_t jobs_in_flight(asio::execution_context& context) {
  return context_local<ContextWaiters>(context).table->size();
}

}  // namespace vision::runtime
