#include "bindings/c/operation.hpp"

#include <algorithm>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/this_coro.hpp>
#include <stdexcept>
#include <utility>

#include "bindings/c/errors.hpp"
#include "bindings/c/exit_gate.hpp"
#include "bindings/c/numbered.hpp"
#include "bindings/c/replies.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::c {
namespace {

// Never destroyed: the host may cancel while the process exits.
Numbered<std::shared_ptr<Operation>>& operations_in_flight() {
  static auto* const made = new Numbered<std::shared_ptr<Operation>>;
  return *made;
}

const Kind* find_kind(std::string_view name) {
  for (const auto kinds : {model_operations(), page_operations()}) {
    const auto found = std::find_if(kinds.begin(), kinds.end(), [name](const Kind& kind) { return kind.name == name; });
    if (found != kinds.end()) return &*found;
  }
  return nullptr;
}

template <class T>
std::shared_ptr<T> present(std::shared_ptr<T> thing, const char* name) {
  if (!thing) throw std::invalid_argument(std::string("no ") + name + " was given");
  return thing;
}

template <class T>
void check_loop(const std::shared_ptr<T>& handle, const Loop& loop, const char* name) {
  if (handle && &*handle->loop() != &loop) {
    throw std::invalid_argument(std::string("the ") + name + " belongs to another runtime");
  }
}

}  // namespace

Input::Input(const vision_call& call)
    : options(call.options ? call.options : "", call.options ? call.options_size : 0), host(call.host) {
  if (call.page) page_handle = call.page->page;
  if (call.client) client_handle = call.client->client;
  if (call.browser) browser_handle = call.browser->browser;
  if (call.image) given_image = take_image(*call.image);
  if (call.functions) functions = *call.functions;
}

void Input::check(const Loop& loop) const {
  check_loop(page_handle, loop, "page");
  check_loop(client_handle, loop, "client");
  check_loop(browser_handle, loop, "browser");
}

std::shared_ptr<BrowserPage> Input::page() const {
  return present(page_handle, "page")->get();
}

std::shared_ptr<chromium::ChromiumPage> Input::chromium_page() const {
  return present(present(page_handle, "page")->chromium_page(), "page of a Chromium");
}

std::shared_ptr<chromium::Browser> Input::browser() const {
  return present(browser_handle, "browser")->get();
}

Bytes Input::image() const {
  if (!given_image) throw std::invalid_argument("no image was given");
  return *given_image;
}

Operation::Operation(std::shared_ptr<Loop> loop, const char* name, const vision_call& call)
    : loop_(std::move(loop)), name_(name ? name : ""), number_(next_number()), done_(call.done), input_(call) {}

vision_operation Operation::begin() {
  try {
    prepare();
  } catch (...) {
    error_ = std::current_exception();
  }
  operations_in_flight().add(number_, shared_from_this());
  if (loop_->begin(shared_from_this())) return number_;
  operations_in_flight().take(number_);
  return 0;
}

void Operation::prepare() {
  kind_ = find_kind(name_);
  if (!kind_) throw std::invalid_argument("vision_start: there is no operation \"" + name_ + "\"");
  input_.check(*loop_);
  if (kind_->asks_the_model && !input_.client_handle) input_.client_handle = default_client(loop_);
}

void Operation::start() {
  asio::co_spawn(
      loop_->io(), run(shared_from_this()),
      asio::bind_cancellation_slot(signal_.slot(), [self = shared_from_this()](std::exception_ptr) { self->end(); }));
}

// What has not had its first turn must not be sent a cancellation.
void Operation::cancel() {
  is_cancelled_ = true;
  if (is_running_) signal_.emit(asio::cancellation_type::terminal);
}

asio::awaitable<void> Operation::run(std::shared_ptr<Operation> self) {
  self->is_running_ = true;
  try {
    if (self->error_) std::rethrow_exception(self->error_);
    if (self->is_cancelled_) throw boost::system::system_error(asio::error::operation_aborted);
    Options options(self->input_.options, self->name_);
    self->output_ = co_await self->kind_->body(self->input_, std::move(options));
  } catch (...) {
    self->error_ = std::current_exception();
  }
  co_await asio::this_coro::throw_if_cancelled(false);  // Asio awaits once more behind us
}

void Operation::end() {
  is_running_ = false;
  operations_in_flight().take(number_);
  if (error_) {
    report(error_);
  } else if (done_) {
    const std::string value = text::to_json(output_.value);
    vision_result result{};
    result.value = value.c_str();
    result.value_size = value.size();
    if (output_.image) result.image = give_image(std::move(*output_.image));
    if (output_.page) result.page = new vision_page{std::move(output_.page)};
    if (output_.browser) result.browser = new vision_browser{std::move(output_.browser)};
    call_host(done_, input_.host, static_cast<const vision_result*>(&result));
  }
  // Now, and not with the last reference, which a thread that cancels may hold.
  error_ = nullptr;
  output_ = Output();
  input_ = Input(vision_call());
  loop_->ended(shared_from_this());
}

void Operation::report(const std::exception_ptr& error) {
  const ErrorForHost told(error, is_cancelled_);
  if (done_) {
    vision_result result{};
    result.error = &told.get();
    result.value = "null";
    result.value_size = 4;
    call_host(done_, input_.host, static_cast<const vision_result*>(&result));
  } else if (!told.is_cancellation()) {
    log::line(spdlog::level::warn, "vision: %s failed: %s: %s", name_, told.get().kind, told.get().message);
  }
}

}  // namespace vision::c

vision_operation vision_start(vision_runtime* runtime, const char* operation, const vision_call* call) {
  return std::make_shared<vision::c::Operation>(runtime->loop, operation, *call)->begin();
}

void vision_cancel(vision_operation operation) {
  const auto found = vision::c::operations_in_flight().find(operation);
  if (found) found->loop()->post([found] { found->cancel(); });
}

void vision_browser_release(vision_browser* browser) {
  delete browser;
}
