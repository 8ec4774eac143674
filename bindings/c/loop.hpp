#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "bindings/c/exit_gate.hpp"

namespace vision::c {
namespace asio = boost::asio;

class Client;
class Operation;

/// What a vision_runtime stands for: an event loop and its thread. Handles and
/// operations keep the object; the event loop in it ends before.
class Loop : public std::enable_shared_from_this<Loop> {
 public:
  /// Starts the thread. Throws std::system_error when it cannot be started.
  static std::shared_ptr<Loop> start();

  /// That of the calling thread, or null.
  static Loop* current() noexcept;

  /// Runs `job` on the thread, later. Does nothing, and returns false, once the loop has
  /// ended. From any thread.
  template <class Job>
  bool post(Job job) {
    const std::lock_guard lock(mutex_);
    if (!io_) return false;
    asio::post(*io_, std::move(job));
    return true;
  }

  /// Runs `job` on the thread and waits; on the calling one, once the loop has ended.
  void run(const std::function<void()>& job);

  /// The event loop. On the thread only.
  asio::io_context& io() { return *io_; }

  ///@{
  /// The operations in flight. `begin`, from any thread, lets one start; false when the
  /// loop is ending. `ended` is for the thread.
  bool begin(const std::shared_ptr<Operation>& operation);
  void ended(const std::shared_ptr<Operation>& operation);
  ///@}

  /// Cancels what is in flight, ends the thread and waits for that, except on the thread
  /// itself and in a forked child.
  void end();

  ///@{
  /// Objects that live on the thread, until they are dropped or the loop ends, the
  /// youngest first. `resident` is null once there is none. `drop` is for any thread.
  std::uint64_t keep(std::shared_ptr<void> object);
  std::shared_ptr<void> resident(std::uint64_t id) const;
  void drop(std::uint64_t id);
  ///@}

  /// The default client and where keys come from, which client.cpp looks after.
  struct Defaults {
    std::mutex mutex;
    std::shared_ptr<Client> client;
    std::function<std::string()> resolve_api_key;
  } defaults;

 private:
  Loop();
  void thread_body();
  void serve();
  void cancel_all();
  void stop_when_idle();

  std::mutex mutex_;
  std::condition_variable over_;
  std::unique_ptr<asio::io_context> io_;   // under mutex_, which the thread itself needs for writing alone
  bool ending_ = false, is_over_ = false;  // under mutex_
  const int process_;                      // a forked child has the object and not the thread
  std::set<std::shared_ptr<Operation>> operations_;
  std::map<std::uint64_t, std::shared_ptr<void>, std::greater<>> residents_;
  std::uint64_t last_resident_ = 0;
  ExitGate gate_;
};

}  // namespace vision::c
