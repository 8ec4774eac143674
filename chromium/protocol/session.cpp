#include "chromium/protocol/session.hpp"

#include <chrono>
#include <utility>

#include "chromium/errors.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/fields.hpp"
#include "chromium/protocol/message.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

std::string command_text(std::uint64_t id, std::string_view method, const std::string& session,
                         const json::object& params) {
  json::object head = fields("id", id, "method", method);
  if (!session.empty()) head.emplace("sessionId", session);
  std::string out;
  text::append_json(out, head);
  out.pop_back();
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
  throw ProtocolError(method, code, std::string(text_of(error, "message")));
}

json::object result_of(const std::string& method, json::object& message) {
  if (const auto* error = message.if_contains("error"); error && error->is_object()) {
    throw_refusal(method, error->get_object());
  }
  auto* result = message.if_contains("result");
  if (!result || !result->is_object()) throw BrowserError(method + ": the browser's answer has no result");
  return std::move(result->get_object());
}

}  // namespace

Waiter::Waiter(std::shared_ptr<Session> session) : session_(std::move(session)), done_(session_->executor()) {
  session_->waiters_.insert(this);
}

Waiter::~Waiter() {
  session_->waiters_.erase(this);
}

void Waiter::fail(std::exception_ptr error) {
  if (done_.is_set()) return;
  error_ = std::move(error);
  done_.set();
}

asio::awaitable<void> Waiter::wait(runtime::Duration limit, std::string what) {
  auto outcome = co_await runtime::with_deadline(done_.wait(), limit);
  if (outcome.timed_out()) {
    throw CommandTimeout(what, std::chrono::duration_cast<std::chrono::milliseconds>(limit).count());
  }
  if (outcome.error()) std::rethrow_exception(outcome.error());
  if (error_) std::rethrow_exception(error_);
}

Reply::Reply(std::shared_ptr<Session> session, std::shared_ptr<Connection> connection)
    : Waiter(std::move(session)), connection_(std::move(connection)), id_(++connection_->last_id_) {
  connection_->replies_.emplace(id_, this);
}

Reply::~Reply() {
  connection_->replies_.erase(id_);
}

Session::Session(std::shared_ptr<Connection> connection, std::string id)
    : connection_(std::move(connection)), id_(std::move(id)) {}

Session::~Session() {
  connection_->sessions_.erase(id_);
}

runtime::Duration Session::limit() const {
  return connection_->limit_;
}

asio::any_io_executor Session::executor() const {
  return connection_->executor_;
}

void Session::check(std::string_view method) const {
  if (ended_) std::rethrow_exception(ended_);
  // Only a navigation brings a new renderer; the dead one answers nothing.
  if (crashed_ && method != "Page.navigate") throw PageCrashedError();
}

asio::awaitable<json::object> Session::call(std::string method, json::object params) {
  return call(std::move(method), std::move(params), limit());
}

asio::awaitable<json::object> Session::call(std::string method, json::object params, runtime::Duration limit) {
  Reply reply(shared_from_this(), connection_);
  send(reply, method, params);
  co_await reply.wait(limit, method);
  co_return result_of(method, reply.message);
}

asio::awaitable<Bytes> Session::call_for_picture(std::string method, json::object params) {
  Reply reply(shared_from_this(), connection_);
  reply.keeps_text = true;
  send(reply, method, params);
  co_await reply.wait(limit(), method);
  if (auto picture = picture_in_answer(reply.text)) co_return std::move(*picture);
  // In another form than Chromium's; without the id at its head it was parsed on its way.
  if (!reply.text.empty()) reply.message = std::move(parse_message(reply.text).as_object());
  co_return decode_base64(text_of(result_of(method, reply.message), "data"));
}

void Session::send(const Reply& reply, const std::string& method, const json::object& params) {
  check(method);
  std::string command = command_text(reply.id(), method, id_, params);
  if (command.size() > max_command_size) throw BrowserError(method + ": more than 100 MiB, too large for the browser");
  connection_->send(std::move(command));
}

void Session::post(std::string_view method, const json::object& params) noexcept {
  if (ended_) return;
  try {
    connection_->send(command_text(++connection_->last_id_, method, id_, params));
  } catch (const std::bad_alloc&) {  // then it is not sent
  }
}

void Session::handle(std::string_view method, const json::object& params) {
  if (method == "Inspector.targetCrashed") {
    crashed_ = true;
    fail_waiters(std::make_exception_ptr(PageCrashedError()));
  } else if (method == "Inspector.targetReloadedAfterCrash") {
    crashed_ = false;
  } else if (handler_) {
    handler_(method, params);
  }
}

void Session::end(const std::exception_ptr& error) {
  if (ended_) return;
  ended_ = error;
  fail_waiters(error);
}

// A failed waiter resumes later, so the set stays as it is meanwhile.
void Session::fail_waiters(const std::exception_ptr& error) {
  for (Waiter* waiter : waiters_) waiter->fail(error);
}

}  // namespace vision::chromium
