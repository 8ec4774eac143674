#pragma once

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

/// The DevTools protocol over one transport: numbers the commands, hands the
/// answers to who waits and the events to their sessions. Lives on one executor.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// Begins to read. `limit` is the time a command may take.
  static std::shared_ptr<Connection> open(const boost::asio::any_io_executor& executor,
                                          std::unique_ptr<Transport> transport, runtime::Duration limit);
  Connection(const boost::asio::any_io_executor& executor, std::unique_ptr<Transport> transport,
             runtime::Duration limit);

  /// The session with this id, told to us by the browser; "" is the browser's own.
  std::shared_ptr<Session> session(const std::string& id);

  /// Ends everything under way with PageClosedError.
  void close() noexcept;
  std::exception_ptr ended() const noexcept { return ended_; }

 private:
  friend class Session;
  friend class Reply;
  static boost::asio::awaitable<void> read_loop(std::shared_ptr<Connection> self);
  static boost::asio::awaitable<void> write_loop(std::shared_ptr<Connection> self);
  void send(std::string message);
  void end(const std::string& cause);
  void dispatch(std::string text);
  void dispatch_event(std::string_view method, const std::string& session, const boost::json::object& params);
  void undecodable(std::string_view message, const std::string& reason);

  const boost::asio::any_io_executor executor_;
  const std::unique_ptr<Transport> transport_;
  const runtime::Duration limit_;
  const std::shared_ptr<const bool> context_lives_;
  std::map<std::string, std::weak_ptr<Session>> sessions_;
  std::map<std::uint64_t, Reply*> replies_;
  std::uint64_t last_id_ = 0;
  std::deque<std::string> outbox_;
  bool writing_ = false;
  std::exception_ptr ended_;
};

}  // namespace vision::chromium
