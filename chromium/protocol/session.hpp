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

#include "chromium/errors.hpp"
#include "vision/records/bytes.hpp"
#include "vision/runtime/internal/one_shot.hpp"
#include "vision/runtime/time.hpp"

namespace vision::chromium {

class Connection;
class ReplyWaiter;
class Session;

/// Whether an event is of a certain kind.
using EventTest = bool (*)(std::string_view method, const boost::json::object& params);

/// The page changed while its picture was being taken.
class PictureSpoiled : public BrowserError {
 public:
  PictureSpoiled() : BrowserError("the page changed while its picture was being taken") {}
};

/// Takes the result of a command that no coroutine awaits.
using ResultHandler = std::function<void(const boost::json::object& result)>;

/// Something that a coroutine awaits from the browser. Lives in that coroutine's
/// frame, and fails when its session ends or its page crashes.
class Waiter {
 public:
  explicit Waiter(std::shared_ptr<Session> session);
  virtual ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  ///@{
  /// Lets wait() complete. The first call decides; `error` must not be null.
  void succeed();
  void fail(std::exception_ptr error);
  ///@}
  /// Called with each event of the session.
  virtual void handle_event(std::string_view, const boost::json::object&) {}
  /// Completes after succeed(). Throws the error given to fail(), or after `limit`
  /// CommandTimeout, which names `what`.
  boost::asio::awaitable<void> wait(runtime::Duration limit, std::string what);

 protected:
  const std::shared_ptr<Session> session_;

 private:
  runtime::OneShot done_;
  std::exception_ptr error_;
};

/// One conversation on a connection: with a page or, if its id is empty, with the
/// browser itself.
class Session : public std::enable_shared_from_this<Session> {
 public:
  using EventHandler = std::function<void(std::string_view method, const boost::json::object& params)>;

  Session(std::shared_ptr<Connection> connection, std::string id);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Sends a command and returns its result. Throws ProtocolError if the browser
  /// refuses, CommandTimeout if no reply comes within `limit` (by default the
  /// connection's), PageClosedError or PageCrashedError as soon as the page has ended.
  /// A command that was cancelled or timed out may still take effect.
  boost::asio::awaitable<boost::json::object> command(std::string method, boost::json::object params = {});
  boost::asio::awaitable<boost::json::object> command(std::string method, boost::json::object params,
                                                      runtime::Duration limit);

  /// The same. A result that comes when the command has been cancelled or has timed out
  /// goes to `undo`, which must not throw.
  boost::asio::awaitable<boost::json::object> command_or_undo(std::string method, boost::json::object params,
                                                              ResultHandler undo);

  /// The same for a command whose result is a picture as base64 text. The memory of
  /// the reply becomes the picture's. Throws PictureSpoiled as soon as an event comes for
  /// which `spoils`, if not null, is true.
  boost::asio::awaitable<Bytes> command_for_picture(std::string method, boost::json::object params,
                                                    EventTest spoils = nullptr);

  /// Sends a command and ignores its reply. For event handlers and destructors, which
  /// cannot wait. Ends the connection when 4 MiB of such commands wait for a peer that
  /// does not read them.
  void send_and_forget(std::string_view method, const boost::json::object& params) noexcept;

  /// Sends a command and calls `then` with its result, within the connection's handling of
  /// the reply; not at all if the browser refuses or the connection ends. `then` must not throw.
  void send_then(std::string_view method, const boost::json::object& params, ResultHandler then);

  /// Replaces the handler of this session's events; null ignores them. An exception
  /// from it ends the connection.
  void set_event_handler(EventHandler handler) { event_handler_ = std::move(handler); }

  /// What may keep the page from replying, for the text of a CommandTimeout; empty
  /// when nothing is known.
  void set_obstacle(std::string obstacle) { obstacle_ = std::move(obstacle); }

  const std::string& id() const noexcept { return id_; }
  /// Why the session has ended; null while it is usable.
  std::exception_ptr ended() const noexcept { return ended_; }
  /// The connection's.
  runtime::Duration command_timeout() const;
  boost::asio::any_io_executor executor() const;

 private:
  friend class Connection;
  friend class Waiter;
  void handle_event(std::string_view method, const boost::json::object& params);
  void end(const std::exception_ptr& error);
  void fail_waiters(const std::exception_ptr& error);
  void throw_if_unusable(std::string_view method) const;
  void send(const ReplyWaiter& reply, const std::string& method, const boost::json::object& params);

  const std::shared_ptr<Connection> connection_;  // which refers back weakly
  const std::string id_;
  std::set<Waiter*> waiters_;  // each registers itself for its lifetime
  EventHandler event_handler_;
  std::string obstacle_;
  std::exception_ptr ended_;
  bool crashed_ = false;
};

/// Awaits the reply to one command.
class ReplyWaiter : public Waiter {
 public:
  ReplyWaiter(std::shared_ptr<Session> session, std::shared_ptr<Connection> connection);
  ~ReplyWaiter() override;
  std::uint64_t id() const noexcept { return id_; }

  void handle_event(std::string_view method, const boost::json::object& params) override;

  EventTest spoils = nullptr;   ///< for which events to fail with PictureSpoiled
  bool wants_text = false;      ///< whether to deliver the reply unparsed, as `text`
  boost::json::object message;  ///< the whole reply, unless it was wanted as text
  std::string text;
  ResultHandler undo;  ///< for the reply to a sent command, if nobody takes it

 private:
  const std::shared_ptr<Connection> connection_;
  const std::uint64_t id_;
};

}  // namespace vision::chromium
