#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "vision/records/bytes.hpp"
#include "vision/runtime/internal/one_shot.hpp"
#include "vision/runtime/time.hpp"

namespace vision::chromium {

class Connection;
class Reply;
class Session;

/// Something that a coroutine awaits from the browser. It lives in that
/// coroutine's frame and fails when its session ends or its page crashes.
class Waiter {
 public:
  explicit Waiter(std::shared_ptr<Session> session);
  virtual ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  void finish() { done_.set(); }
  void fail(std::exception_ptr error);
  /// Completes after finish(). Throws what fail() was given, or CommandTimeout
  /// naming `what` after `limit`.
  boost::asio::awaitable<void> wait(runtime::Duration limit, std::string what);

 protected:
  const std::shared_ptr<Session> session_;

 private:
  runtime::OneShot done_;
  std::exception_ptr error_;
};

/// One conversation on a connection: with a page, or (the one without an id)
/// with the browser itself.
class Session : public std::enable_shared_from_this<Session> {
 public:
  using EventHandler = std::function<void(std::string_view method, const boost::json::object& params)>;

  Session(std::shared_ptr<Connection> connection, std::string id);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Sends a command and gives its result. Throws ProtocolError for a refusal,
  /// CommandTimeout when no answer comes within the connection's time limit,
  /// PageClosedError and PageCrashedError once the page has ended, also in the
  /// middle. A cancelled or expired command may still take effect.
  boost::asio::awaitable<boost::json::object> call(std::string method, boost::json::object params = {});
  boost::asio::awaitable<boost::json::object> call(std::string method, boost::json::object params,
                                                   runtime::Duration limit);

  /// The same for a command whose result is a picture, which comes as base64 text:
  /// the message's own memory becomes the picture's.
  boost::asio::awaitable<Bytes> call_for_picture(std::string method, boost::json::object params);

  /// Sends a command whose outcome nobody waits for: from event handlers and
  /// destructors.
  void post(std::string_view method, const boost::json::object& params) noexcept;

  /// Replaces the handler of this session's events. It must not throw.
  void on_event(EventHandler handler) { handler_ = std::move(handler); }

  const std::string& id() const noexcept { return id_; }
  /// Why nothing more can come; null while it lives.
  std::exception_ptr ended() const noexcept { return ended_; }
  runtime::Duration limit() const;
  boost::asio::any_io_executor executor() const;

 private:
  friend class Connection;
  friend class Waiter;
  void handle(std::string_view method, const boost::json::object& params);
  void end(const std::exception_ptr& error);
  void fail_waiters(const std::exception_ptr& error);
  void check(std::string_view method) const;
  void send(const Reply& reply, const std::string& method, const boost::json::object& params);

  const std::shared_ptr<Connection> connection_;
  const std::string id_;
  std::set<Waiter*> waiters_;
  EventHandler handler_;
  std::exception_ptr ended_;
  bool crashed_ = false;
};

/// A command's answer on its way.
class Reply : public Waiter {
 public:
  Reply(std::shared_ptr<Session> session, std::shared_ptr<Connection> connection);
  ~Reply() override;
  std::uint64_t id() const noexcept { return id_; }

  bool keeps_text = false;      ///< set it to get the answer unparsed
  boost::json::object message;  ///< all of it, once finished
  std::string text;             ///< or, when it was to be kept, its text

 private:
  const std::shared_ptr<Connection> connection_;
  const std::uint64_t id_;
};

}  // namespace vision::chromium
