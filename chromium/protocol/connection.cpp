#include "chromium/protocol/connection.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/query.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/websocket/error.hpp>
#include <boost/system/system_error.hpp>
#include <utility>

#include "chromium/errors.hpp"
#include "chromium/protocol/fields.hpp"
#include "chromium/protocol/message.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

// Destructors run while the context destroys suspended coroutines, and must not
// start a new one then. Made after the transport's own services, this one hears
// of the shutdown before they do.
class LifeService : public asio::execution_context::service {
 public:
  using key_type = LifeService;
  static asio::execution_context::id id;
  explicit LifeService(asio::execution_context& context) : service(context), lives(std::make_shared<bool>(true)) {}
  std::shared_ptr<bool> lives;

 private:
  void shutdown() override { *lives = false; }
};

asio::execution_context::id LifeService::id;

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
                       runtime::Duration limit)
    : executor_(executor),
      transport_(std::move(transport)),
      limit_(limit),
      context_lives_(asio::use_service<LifeService>(asio::query(executor, asio::execution::context)).lives) {}

std::shared_ptr<Connection> Connection::open(const asio::any_io_executor& executor,
                                             std::unique_ptr<Transport> transport, runtime::Duration limit) {
  auto self = std::make_shared<Connection>(executor, std::move(transport), limit);
  asio::co_spawn(executor, read_loop(self), [self](std::exception_ptr error) { self->end(cause_of(error)); });
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

void Connection::end(const std::string& cause) {
  if (ended_) return;
  ended_ = std::make_exception_ptr(PageClosedError(cause));
  transport_->close();
  outbox_.clear();
  for (const auto& [id, entry] : sessions_) {
    if (const auto session = entry.lock()) session->end(ended_);
  }
}

asio::awaitable<void> Connection::read_loop(std::shared_ptr<Connection> self) {
  for (;;) {
    std::string message = co_await self->transport_->read();
    self->dispatch(std::move(message));
  }
}

asio::awaitable<void> Connection::write_loop(std::shared_ptr<Connection> self) {
  while (!self->outbox_.empty()) {
    std::string message = std::move(self->outbox_.front());
    self->outbox_.pop_front();
    co_await self->transport_->write(std::move(message));
  }
  self->writing_ = false;
}

void Connection::send(std::string message) {
  if (ended_ || !*context_lives_) return;
  outbox_.push_back(std::move(message));
  if (std::exchange(writing_, true)) return;
  asio::co_spawn(executor_, write_loop(shared_from_this()), [self = shared_from_this()](std::exception_ptr error) {
    if (error) self->end(cause_of(error));
  });
}

void Connection::dispatch(std::string text) {
  if (const auto id = leading_id(text)) {
    const auto found = replies_.find(*id);
    if (found != replies_.end() && found->second->keeps_text) {
      found->second->text = std::move(text);
      return found->second->finish();
    }
  }
  json::value message;
  try {
    message = parse_message(text);
  } catch (const BrowserError& e) {
    return undecodable(text, e.what());
  }
  auto* object = message.if_object();
  if (!object) return;
  if (const auto* id = object->if_contains("id"); id && id->is_int64()) {
    const auto found = replies_.find(static_cast<std::uint64_t>(id->get_int64()));
    if (found == replies_.end()) return;  // nobody waits any more
    found->second->message = std::move(*object);
    found->second->finish();
  } else {
    dispatch_event(text_of(*object, "method"), std::string(text_of(*object, "sessionId")),
                   object_of(*object, "params"));
  }
}

void Connection::dispatch_event(std::string_view method, const std::string& id, const json::object& params) {
  if (method == "Target.detachedFromTarget") {
    const auto gone = sessions_.find(std::string(text_of(params, "sessionId")));
    const auto session = gone == sessions_.end() ? nullptr : gone->second.lock();
    if (session) session->end(std::make_exception_ptr(PageClosedError()));
  }
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return;
  if (const auto session = found->second.lock()) session->handle(method, params);
}

void Connection::undecodable(std::string_view message, const std::string& reason) {
  const auto id = leading_id(message);
  const auto found = id ? replies_.find(*id) : replies_.end();
  if (found != replies_.end()) found->second->fail(std::make_exception_ptr(BrowserError(reason)));
}

}  // namespace vision::chromium
