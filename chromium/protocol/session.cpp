#include "chromium/protocol/session.hpp"

#include <cassert>
#include <chrono>
#include <utility>

#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/message.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

// Written in two parts, because copying `params` into the message would copy a typed
// text or script.
std::string command_text(std::uint64_t id, std::string_view method, const std::string& session,
                         const json::object& params) {
  json::object head = make_object("id", id, "method", method);
  if (!session.empty()) head.emplace("sessionId", session);
  std::string out;
  text::append_json(out, head);
  out.pop_back();  // the closing brace
  out += ", \"params\": ";
  text::append_json(out, params);
  out += '}';
  return out;
}

[[noreturn]] void throw_refusal(const std::string& method, const json::object& error) {
  const auto* code_value = error.if_contains("code");
  const int code = code_value && code_value->is_int64() ? static_cast<int>(code_value->get_int64()) : 0;
  constexpr int unknown_session = -32001;
  if (code == unknown_session) throw PageClosedError();
  throw ProtocolError(method, code, text::one_line(text_of(error, "message")));
}

json::object result_of(const std::string& method, json::object& message) {
  if (const auto* error = message.if_contains("error"); error && error->is_object()) {
    throw_refusal(method, error->get_object());
  }
  auto* result = message.if_contains("result");
  if (!result || !result->is_object()) throw BrowserError(method + ": the browser's reply has no result");
  return std::move(result->get_object());
}

}  // namespace

Waiter::Waiter(std::shared_ptr<Session> session) : session_(std::move(session)), done_(session_->executor()) {
  session_->waiters_.insert(this);
}

Waiter::~Waiter() {
  session_->waiters_.erase(this);
}

void Waiter::succeed() {
  done_.set();
}

void Waiter::fail(std::exception_ptr error) {
  assert(error);
  if (done_.is_set()) return;
  error_ = std::move(error);
  done_.set();
}

asio::awaitable<void> Waiter::wait(runtime::Duration limit, std::string what) {
  auto outcome = co_await runtime::with_deadline(done_.wait(), limit);
  if (outcome.timed_out()) {
    throw CommandTimeout(what, std::chrono::duration_cast<std::chrono::milliseconds>(limit).count(),
                         session_->obstacle_);
  }
  if (outcome.error()) std::rethrow_exception(outcome.error());
  if (error_) std::rethrow_exception(error_);
}

ReplyWaiter::ReplyWaiter(std::shared_ptr<Session> session, std::shared_ptr<Connection> connection)
    : Waiter(std::move(session)), connection_(std::move(connection)), id_(++connection_->last_id_) {
  connection_->reply_waiters_.emplace(id_, this);
}

// From here on a late reply is for `undo`. Without one it finds nobody and is dropped.
ReplyWaiter::~ReplyWaiter() {
  connection_->reply_waiters_.erase(id_);
  if (!undo) return;
  if (message.empty()) {
    connection_->handle_result_of(id_, std::move(undo));
  } else if (const auto* result = message.if_contains("result"); result && result->is_object()) {
    undo(result->get_object());
  }
}

void ReplyWaiter::handle_event(std::string_view method, const json::object& params) {
  if (spoils && spoils(method, params)) fail(std::make_exception_ptr(PictureSpoiled()));
}

Session::Session(std::shared_ptr<Connection> connection, std::string id)
    : connection_(std::move(connection)), id_(std::move(id)) {}

// No waiter is left: each holds its session.
Session::~Session() {
  connection_->sessions_.erase(id_);
}

runtime::Duration Session::command_timeout() const {
  return connection_->command_timeout_;
}

asio::any_io_executor Session::executor() const {
  return connection_->executor_;
}

void Session::throw_if_unusable(std::string_view method) const {
  if (ended_) std::rethrow_exception(ended_);
  // The dead renderer replies to nothing; a navigation brings a new one.
  if (crashed_ && method != "Page.navigate") throw PageCrashedError();
}

asio::awaitable<json::object> Session::command(std::string method, json::object params) {
  return command(std::move(method), std::move(params), command_timeout());
}

// The waiter is registered before the command is sent, so the reply cannot be missed.
asio::awaitable<json::object> Session::command(std::string method, json::object params, runtime::Duration limit) {
  ReplyWaiter reply(shared_from_this(), connection_);
  send(reply, method, params);
  co_await reply.wait(limit, method);
  co_return result_of(method, reply.message);
}

asio::awaitable<json::object> Session::command_or_undo(std::string method, json::object params, ResultHandler undo) {
  ReplyWaiter reply(shared_from_this(), connection_);
  send(reply, method, params);
  reply.undo = std::move(undo);
  co_await reply.wait(command_timeout(), method);
  reply.undo = nullptr;
  co_return result_of(method, reply.message);
}

asio::awaitable<Bytes> Session::command_for_picture(std::string method, json::object params, EventTest spoils) {
  ReplyWaiter reply(shared_from_this(), connection_);
  reply.wants_text = true;
  reply.spoils = spoils;
  send(reply, method, params);
  co_await reply.wait(command_timeout(), method);
  if (auto picture = picture_in_reply(reply.text)) co_return std::move(*picture);
  // A refusal, or a form that Chromium does not write. A reply without its id at the
  // start was already parsed on arrival.
  if (!reply.text.empty()) reply.message = std::move(parse_message(reply.text).as_object());
  co_return decode_base64(text_of(result_of(method, reply.message), "data"));
}

void Session::send(const ReplyWaiter& reply, const std::string& method, const json::object& params) {
  throw_if_unusable(method);
  std::string command = command_text(reply.id(), method, id_, params);
  if (command.size() > max_command_size) {
    throw BrowserError(method + ": the command is larger than 100 MiB, the browser's limit");
  }
  connection_->send(std::move(command));
}

void Session::send_and_forget(std::string_view method, const json::object& params) noexcept {
  if (ended_) return;
  try {
    connection_->send_unasked(command_text(++connection_->last_id_, method, id_, params));
  } catch (const std::bad_alloc&) {  // the command is lost
  }
}

void Session::send_then(std::string_view method, const json::object& params, ResultHandler then) {
  if (ended_) return;
  const std::uint64_t id = ++connection_->last_id_;
  connection_->send(command_text(id, method, id_, params));
  connection_->handle_result_of(id, std::move(then));
}

void Session::handle_event(std::string_view method, const json::object& params) {
  if (method == "Inspector.targetCrashed") {
    crashed_ = true;
    fail_waiters(std::make_exception_ptr(PageCrashedError()));
  } else if (method == "Inspector.targetReloadedAfterCrash") {
    crashed_ = false;
  } else {
    for (Waiter* waiter : waiters_) waiter->handle_event(method, params);
    if (event_handler_) event_handler_(method, params);
  }
}

void Session::end(const std::exception_ptr& error) {
  if (ended_) return;  // the first cause stays
  ended_ = error;
  fail_waiters(error);
}

// A waiter leaves the set when its coroutine resumes, which is never during a loop over them.
void Session::fail_waiters(const std::exception_ptr& error) {
  for (Waiter* waiter : waiters_) waiter->fail(error);
}

}  // namespace vision::chromium
