#pragma once

#include <curl/curl.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "vision/client/http/internal/exchange.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::detail::http {

/// Runs exchanges on one libcurl multi handle, woken by an execution context:
/// its connections are the context's pool, which ends when nothing is in flight and it
/// may hold more than 32.
///
/// Thread-safe by one mutex, which every entry holds for the length of one
/// non-blocking libcurl call; what waiting code is told, it is told through its
/// own executor and after the mutex was released.
class CurlDriver {
 public:
  /// Told once how waiting ended: no error when the exchange is finished,
  /// operation_aborted when it was cancelled. Must not run user code itself, but
  /// post it.
  using Completion = std::function<void(boost::system::error_code)>;

  /// Waits for sockets and timers on `executor`. Throws std::runtime_error when
  /// libcurl cannot be set up.
  explicit CurlDriver(const boost::asio::any_io_executor& executor);
  ~CurlDriver();
  CurlDriver(const CurlDriver&) = delete;
  CurlDriver& operator=(const CurlDriver&) = delete;

  /// Begins the exchange; failures to do so also go to it and its completion.
  void start(std::shared_ptr<Exchange> exchange, Completion completion) noexcept;

  /// Ends the exchange at once and closes its connection; nothing when it has
  /// ended.
  void cancel(const Exchange* exchange) noexcept;

  /// Drops everything, with completions uncalled, and stays so. Called while the
  /// context shuts down, when none of its threads runs.
  void close() noexcept;

 private:
  struct Running {
    std::shared_ptr<Exchange> exchange;
    CURL* easy;
    Completion completion;
  };
  struct Watch {
    explicit Watch(const boost::asio::any_io_executor& executor) : descriptor(executor) {}
    boost::asio::posix::stream_descriptor descriptor;  // another one of the same socket
    std::uint64_t generation = 0;
    int wanted = 0;  // CURL_POLL_IN and CURL_POLL_OUT, as libcurl last said
    int armed = 0;   // of these, the ones waited for
  };
  using Completions = std::vector<Completion>;

  // libcurl's callbacks, called within its functions and so under the mutex.
  static int on_socket(CURL* easy, curl_socket_t fd, int what, void* self, void* watch) noexcept;
  static int on_timer(CURLM* multi, long timeout_ms, void* self) noexcept;

  void watch(curl_socket_t fd, int what);
  void arm(curl_socket_t fd, Watch& watch);
  void wait_for(curl_socket_t fd, Watch& watch, int event);
  Watch* find(curl_socket_t fd, std::uint64_t generation) noexcept;

  void socket_ready(curl_socket_t fd, std::uint64_t generation, int event, bool failed);
  void timer_expired(std::uint64_t generation);
  Completions act(curl_socket_t fd, int events);

  CURL* take_easy() noexcept;
  void retire(CURL* easy) noexcept;
  bool open_pool() noexcept;
  void limit_pool(std::size_t size) noexcept;

  std::mutex mutex_;
  boost::asio::any_io_executor executor_;
  bool is_closed_ = false;
  CURLM* multi_ = nullptr;  // made when a request needs it
  std::size_t pool_size_ = 0;
  std::optional<runtime::IoTimer> timer_;
  std::uint64_t timer_generation_ = 0;
  std::uint64_t last_watch_ = 0;
  std::map<curl_socket_t, Watch> watches_;
  std::map<const Exchange*, Running> running_;
  std::vector<CURL*> idle_;
};

}  // namespace vision::detail::http
