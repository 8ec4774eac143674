#pragma once

#include <curl/curl.h>
#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "vision/client/http/internal/exchange.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::detail::http {

/// Runs exchanges on one libcurl multi handle, driven by an execution context. The
/// multi handle's connections are the context's pool; it is closed when it may hold
/// more than 32 connections and nothing is in flight. A forked child and a process that
/// exits leave libcurl's objects as they are: see `forked` and `process_exits`.
///
/// Thread-safe: one mutex, which every entry point holds for the length of one
/// non-blocking libcurl call. Completions are called after the mutex is released.
class CurlDriver {
 public:
  /// Called once, with no error when the exchange is finished and with
  /// operation_aborted when it was cancelled. Must post user code, not run it.
  using Completion = std::function<void(boost::system::error_code)>;

  /// Waits for sockets and timers on `executor`. Throws std::runtime_error when
  /// libcurl cannot be set up.
  explicit CurlDriver(const boost::asio::any_io_executor& executor);
  ~CurlDriver();
  CurlDriver(const CurlDriver&) = delete;
  CurlDriver& operator=(const CurlDriver&) = delete;

  /// Begins the exchange. A failure to begin goes to the exchange too, and its
  /// completion is called before `start` returns.
  void start(std::shared_ptr<Exchange> exchange, Completion completion) noexcept;

  /// Ends the exchange at once and closes its connection; does nothing when it has
  /// already ended.
  void cancel(const Exchange* exchange) noexcept;

  /// Drops everything without calling completions, for good. To be called while the
  /// context shuts down, when none of its threads runs.
  void close() noexcept;

  /// To be called in a child that fork() has made, by its one thread. The exchanges in
  /// flight end with an error, and their connections are the parent's alone. Later
  /// exchanges get connections of their own.
  void forked() noexcept;

  /// From now on libcurl is not called: its TLS may be gone. Exchanges in flight end
  /// only by `cancel` and `close`, new ones fail. Waits for a call that runs.
  void process_exits() noexcept;

 private:
  struct Running {
    std::shared_ptr<Exchange> exchange;
    CURL* easy;
    Completion completion;
  };
  // A socket that libcurl wants to hear of, which is one of a request in flight.
  struct Watch {
    explicit Watch(const boost::asio::any_io_executor& executor) : descriptor(executor) {}
    boost::asio::posix::stream_descriptor descriptor;  // a duplicate of libcurl's
    const Exchange* exchange = nullptr;                // whose request it carries
    std::uint64_t generation = 0;                      // tells it from others of the same number
    std::uint64_t received_before = 0;                 // bytes of earlier responses
    int wanted = 0;                                    // CURL_POLL_IN and CURL_POLL_OUT, as libcurl last said
    int armed = 0;                                     // those of them for which a wait is pending
  };
  using Completions = std::vector<Completion>;

  // libcurl's callbacks. It calls them within its functions, so the mutex is held.
  static curl_socket_t open_socket(void* exchange, curlsocktype, curl_sockaddr* address) noexcept;
  static int close_socket(void* self, curl_socket_t fd) noexcept;
  static int on_socket(CURL* easy, curl_socket_t fd, int what, void* self, void* watch) noexcept;
  static int on_timer(CURLM* multi, long timeout_ms, void* self) noexcept;

  void watch(CURL* easy, curl_socket_t fd, int what);
  void unwatch(curl_socket_t fd) noexcept;
  static boost::system::error_code open_duplicate(curl_socket_t fd, boost::asio::posix::stream_descriptor& descriptor);
  void give_up(const Exchange* key, boost::system::error_code why);
  void arm(curl_socket_t fd, Watch& watch);
  void wait_for(curl_socket_t fd, Watch& watch, int event);
  Watch* find(curl_socket_t fd, std::uint64_t generation) noexcept;

  void socket_ready(curl_socket_t fd, std::uint64_t generation, int event, bool failed);
  void timer_expired(std::uint64_t generation);
  Completions perform(curl_socket_t fd, int events);
  void finish(const Exchange* key, CURLcode code, Completions& completions);
  static const Exchange* exchange_of(CURL* easy) noexcept;

  CURLcode begin(CURL* easy, Exchange& exchange) noexcept;
  bool send_again(Running& running, CURLcode code) noexcept;
  void note_kept_connection(CURL* easy) noexcept;
  void break_stale_connections() noexcept;
  std::map<const Exchange*, Running> leave_behind() noexcept;
  CURL* take_easy() noexcept;
  static void reset(CURL* easy) noexcept;
  void retire(CURL* easy) noexcept;
  bool open_pool() noexcept;
  void limit_pool(std::size_t size) noexcept;

  std::mutex mutex_;
  boost::asio::any_io_executor executor_;
  pid_t process_;  // whose connections these are
  bool is_closed_ = false;
  bool is_exiting_ = false;
  CURLM* multi_ = nullptr;     // made when a request needs it
  std::size_t pool_size_ = 0;  // connections that the multi handle may keep
  std::optional<runtime::IoTimer> timer_;
  std::uint64_t timer_generation_ = 0;  // a wait of another generation is out of date
  std::uint64_t last_watch_ = 0;        // the latest Watch::generation
  std::set<curl_socket_t> kept_;        // of connections that have carried a request and are not closed
  std::map<curl_socket_t, Watch> watches_;
  std::map<const Exchange*, Running> running_;
  std::vector<const Exchange*> given_up_;  // running, and to be ended: their sockets cannot be watched
  std::vector<CURL*> spare_handles_;
};

}  // namespace vision::detail::http
