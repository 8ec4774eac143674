#pragma once

#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "chromium/protocol/session.hpp"
#include "chromium/protocol/transport.hpp"
#include "vision/runtime/time.hpp"

namespace vision::chromium {

/// The DevTools protocol over one transport: numbers the commands, and takes replies
/// to their waiters and events to their sessions. Belongs to one executor.
///
/// Its sessions and its own read and write loops keep it alive. The loops end after
/// close(), which its owner must therefore call.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// Begins to read. A command may take `command_timeout`. Called by a coroutine on
  /// `executor`, or before the event loop runs.
  static std::shared_ptr<Connection> open(const boost::asio::any_io_executor& executor,
                                          std::unique_ptr<Transport> transport, runtime::Duration command_timeout);
  Connection(const boost::asio::any_io_executor& executor, std::unique_ptr<Transport> transport,
             runtime::Duration command_timeout);

  /// The session with this id, which the browser assigned; "" is the browser's own.
  std::shared_ptr<Session> session(const std::string& id);

  /// Ends all sessions with PageClosedError. Idempotent.
  void close() noexcept;
  /// Why the connection has ended; null while it is usable.
  std::exception_ptr ended() const noexcept { return ended_; }

 private:
  friend class Session;
  friend class ReplyWaiter;
  static boost::asio::awaitable<void> read_loop(std::shared_ptr<Connection> self);
  static boost::asio::awaitable<void> write_loop(std::shared_ptr<Connection> self);
  void send(std::string message);
  void send_unasked(std::string message);
  void enqueue(std::string message, std::size_t unasked_bytes);
  void handle_result_of(std::uint64_t id, ResultHandler handler);
  void end(const std::string& cause);
  void dispatch(std::string text);
  void dispatch_reply(std::uint64_t id, boost::json::object message);
  void dispatch_event(std::string_view method, const std::string& session_id, const boost::json::object& params);
  ReplyWaiter* find_waiter(std::uint64_t id) const;

  const pid_t owner_;
  const boost::asio::any_io_executor executor_;
  const std::unique_ptr<Transport> transport_;
  const runtime::Duration command_timeout_;
  const std::shared_ptr<const bool> context_lives_;
  std::map<std::string, std::weak_ptr<Session>> sessions_;  // each removes itself
  std::map<std::uint64_t, ReplyWaiter*> reply_waiters_;     // each removes itself
  std::map<std::uint64_t, ResultHandler> result_handlers_;  // of replies that no coroutine awaits
  std::uint64_t last_id_ = 0;
  struct Outgoing {
    std::string message;
    std::size_t unasked_bytes;
  };
  std::deque<Outgoing> outbox_;      // what write_loop has still to send
  std::size_t unasked_backlog_ = 0;  // the sum of unasked_bytes in it
  bool writing_ = false;             // while write_loop runs
  std::exception_ptr ended_;
};

}  // namespace vision::chromium
