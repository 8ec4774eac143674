#include "chromium/protocol/connection.hpp"

#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/system/system_error.hpp>
#include <utility>

#include "chromium/errors.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/message.hpp"
#include "chromium/protocol/untracked.hpp"
#include "vision/runtime/internal/context_local.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

// Destroying the context destroys suspended coroutines, and with them pages, whose
// destructors send commands; nothing may be spawned then. A service is shut down in
// the reverse order of creation: this one, created after those of the transport, learns
// of it first.
struct ContextLifetime {
  std::shared_ptr<bool> lives = std::make_shared<bool>(true);
  void shutdown() { *lives = false; }
};

std::string cause_of(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const boost::system::system_error& e) {
    if (e.code() == asio::error::eof || e.code() == asio::error::connection_reset ||
        e.code() == asio::error::broken_pipe || e.code() == boost::beast::websocket::error::closed) {
      return "the browser has exited or ended the connection";
    }
    return e.code().message();
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace

Connection::Connection(const asio::any_io_executor& executor, std::unique_ptr<Transport> transport,
                       runtime::Duration command_timeout)
    : owner_(::getpid()),
      executor_(executor),
      transport_(std::move(transport)),
      command_timeout_(command_timeout),
      context_lives_(runtime::context_local<ContextLifetime>(executor).lives) {}

std::shared_ptr<Connection> Connection::open(const asio::any_io_executor& executor,
                                             std::unique_ptr<Transport> transport, runtime::Duration command_timeout) {
  auto self = std::make_shared<Connection>(executor, std::move(transport), command_timeout);
  asio::co_spawn(untracked(executor), read_loop(self),
                 [self](std::exception_ptr error) { self->end(cause_of(error)); });
  return self;
}

std::shared_ptr<Session> Connection::session(const std::string& id) {
  auto& entry = sessions_[id];
  auto out = entry.lock();
  if (out) return out;
  out = std::make_shared<Session>(shared_from_this(), id);
  if (ended_) out->end(ended_);
  entry = out;
  return out;
}

void Connection::close() noexcept {
  end("closed by this program");
}

// Closing the transport also ends both loops, which call this again, to no effect.
void Connection::end(const std::string& cause) {
  if (ended_) return;
  const bool forked = owner_ != ::getpid();  // the descriptors are dead then
  ended_ = std::make_exception_ptr(
      PageClosedError(forked ? "made before fork(): a child process launches or connects to its own browser" : cause));
  transport_->close();
  outbox_.clear();
  unasked_backlog_ = 0;
  result_handlers_.clear();
  for (const auto& [id, entry] : sessions_) {
    if (const auto session = entry.lock()) session->end(ended_);
  }
}

// The browser is read all the time, because its events need an answer (a dialog stops
// its page). Being idle must not keep the event loop running, though.
asio::awaitable<void> Connection::read_loop(std::shared_ptr<Connection> self) {
  for (;;) {
    std::string message;
    {
      const UncountedRead uncounted(self->executor_);
      message = co_await self->transport_->read();
    }
    self->dispatch(std::move(message));
  }
}

asio::awaitable<void> Connection::write_loop(std::shared_ptr<Connection> self) {
  while (!self->outbox_.empty()) {
    std::string message = std::move(self->outbox_.front().message);
    self->unasked_backlog_ -= self->outbox_.front().unasked_bytes;
    self->outbox_.pop_front();
    co_await self->transport_->write(std::move(message));
  }
  self->writing_ = false;
}

void Connection::send(std::string message) {
  enqueue(std::move(message), 0);
}

// The peer decides how many of these there are, by its events, and how long they are, by
// its session ids.
void Connection::send_unasked(std::string message) {
  constexpr std::size_t max_backlog = 4u << 20;
  const std::size_t size = message.size();
  if (unasked_backlog_ + size > max_backlog) return end("the browser does not read the answers to its events");
  enqueue(std::move(message), size);
}

// After a failed write writing_ stays set, which does no harm: the connection has ended.
void Connection::enqueue(std::string message, std::size_t unasked_bytes) {
  if (ended_ || !*context_lives_) return;
  outbox_.push_back({std::move(message), unasked_bytes});
  unasked_backlog_ += unasked_bytes;
  if (std::exchange(writing_, true)) return;
  asio::co_spawn(executor_, write_loop(shared_from_this()), [self = shared_from_this()](std::exception_ptr error) {
    if (error) self->end(cause_of(error));
  });
}

ReplyWaiter* Connection::find_waiter(std::uint64_t id) const {
  const auto found = reply_waiters_.find(id);
  return found == reply_waiters_.end() ? nullptr : found->second;
}

// A message that makes no sense is dropped, but the command of an unreadable reply
// fails at once.
void Connection::dispatch(std::string text) {
  const auto id = leading_id(text);
  ReplyWaiter* waiter = id ? find_waiter(*id) : nullptr;
  if (waiter && waiter->wants_text) {
    waiter->text = std::move(text);
    return waiter->succeed();
  }
  json::value message;
  try {
    message = parse_message(text);
  } catch (const BrowserError&) {
    if (waiter) waiter->fail(std::current_exception());
    return;
  }
  auto* object = message.if_object();
  if (!object) return;
  if (const auto* id_value = object->if_contains("id"); id_value && id_value->is_int64()) {
    dispatch_reply(static_cast<std::uint64_t>(id_value->get_int64()), std::move(*object));
  } else {
    dispatch_event(text_of(*object, "method"), std::string(text_of(*object, "sessionId")),
                   object_of(*object, "params"));
  }
}

void Connection::handle_result_of(std::uint64_t id, ResultHandler handler) {
  if (!ended_) result_handlers_.emplace(id, std::move(handler));
}

// A reply may find nobody: the command was cancelled, has timed out, or was forgotten when
// it was sent.
void Connection::dispatch_reply(std::uint64_t id, json::object message) {
  if (ReplyWaiter* waiter = find_waiter(id)) {
    waiter->message = std::move(message);
    return waiter->succeed();
  }
  const auto handler = result_handlers_.extract(id);
  const auto* result = message.if_contains("result");
  if (handler && result && result->is_object()) handler.mapped()(result->get_object());
}

// The browser does not reply to commands that are pending when their page closes, so
// its session must end by the event.
void Connection::dispatch_event(std::string_view method, const std::string& session_id, const json::object& params) {
  if (method == "Target.detachedFromTarget") {
    const auto gone = sessions_.find(std::string(text_of(params, "sessionId")));
    const auto session = gone == sessions_.end() ? nullptr : gone->second.lock();
    if (session) session->end(std::make_exception_ptr(PageClosedError()));
  }
  const auto found = sessions_.find(session_id);
  if (found == sessions_.end()) return;
  // Held, because the handler may drop the last other reference.
  if (const auto session = found->second.lock()) session->handle_event(method, params);
}

}  // namespace vision::chromium
