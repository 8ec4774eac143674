#include <array>
#include <stdexcept>
#include <utility>

#include "bindings/c/errors.hpp"
#include "bindings/c/exit_gate.hpp"
#include "bindings/c/handles.hpp"
#include "bindings/c/replies.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::c {
namespace json = boost::json;
namespace {

// A page of the host's.
class HostPage : public BrowserPage, private Mouse, private Keyboard {
 public:
  HostPage(const vision_page_functions& functions, void* host) : functions_(functions), host_(host) {}
  ~HostPage() override { call_host(functions_.release, host_); }

  // The size is read with the screenshot: the library asks for it without waiting.
  asio::awaitable<Bytes> screenshot(ScreenshotOptions options) override {
    const HostCall shoot = [this, options](vision_reply reply) {
      call_host(functions_.screenshot, host_, options.full_page() ? 1 : 0, reply);
    };
    Bytes image = co_await image_from_host("screenshot", shoot);
    size_error_ = nullptr;
    try {
      size_ = co_await measure();
    } catch (const boost::system::system_error&) {
      throw;  // a cancellation
    } catch (...) {
      size_error_ = std::current_exception();
    }
    co_return image;
  }

  asio::awaitable<json::value> evaluate(std::string expression) override {
    const HostCall call = [this, &expression](vision_reply reply) {
      call_host(functions_.evaluate, host_, expression.c_str(), expression.size(), reply);
    };
    co_return co_await value_from_host("evaluate", call);
  }

  std::optional<json::object> viewport_size() override {
    if (size_error_) std::rethrow_exception(size_error_);
    return size_;
  }

  Mouse& mouse() override { return *this; }
  Keyboard& keyboard() override { return *this; }

 private:
  asio::awaitable<std::optional<json::object>> measure() {
    const HostCall call = [this](vision_reply reply) { call_host(functions_.viewport_size, host_, reply); };
    json::value size = co_await value_from_host("viewport_size", call);
    if (size.is_null()) co_return std::nullopt;
    if (auto* object = size.if_object()) co_return std::move(*object);
    throw std::invalid_argument("viewport_size must be answered with an object or null, not " + text::to_json(size));
  }

  asio::awaitable<void> click(double x, double y) override {
    const HostCall call = [this, x, y](vision_reply reply) { call_host(functions_.mouse_click, host_, x, y, reply); };
    (void)co_await value_from_host("mouse_click", call);
  }

  asio::awaitable<void> wheel(double delta_x, double delta_y) override {
    const HostCall call = [this, delta_x, delta_y](vision_reply reply) {
      call_host(functions_.mouse_wheel, host_, delta_x, delta_y, reply);
    };
    (void)co_await value_from_host("mouse_wheel", call);
  }

  asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override {
    const HostCall call = [this, &text, delay](vision_reply reply) {
      call_host(functions_.keyboard_type, host_, text.c_str(), text.size(), static_cast<double>(delay.count()), reply);
    };
    (void)co_await value_from_host("keyboard_type", call);
  }

  asio::awaitable<void> press(std::string key) override {
    const HostCall call = [this, &key](vision_reply reply) {
      call_host(functions_.keyboard_press, host_, key.c_str(), key.size(), reply);
    };
    (void)co_await value_from_host("keyboard_press", call);
  }

  const vision_page_functions functions_;
  void* const host_;
  std::optional<json::object> size_;
  std::exception_ptr size_error_;
};

void check(const vision_page_functions& f) {
  const std::array<std::pair<const char*, bool>, 7> functions = {{{"screenshot", f.screenshot != nullptr},
                                                                  {"evaluate", f.evaluate != nullptr},
                                                                  {"viewport_size", f.viewport_size != nullptr},
                                                                  {"mouse_click", f.mouse_click != nullptr},
                                                                  {"mouse_wheel", f.mouse_wheel != nullptr},
                                                                  {"keyboard_type", f.keyboard_type != nullptr},
                                                                  {"keyboard_press", f.keyboard_press != nullptr}}};
  for (const auto& [name, given] : functions) {
    if (!given) throw std::invalid_argument(std::string("vision_page_new: ") + name + " is missing");
  }
}

}  // namespace

Page::Page(std::shared_ptr<Loop> loop, std::shared_ptr<BrowserPage> page)
    : loop_(std::move(loop)), of_host_(std::move(page)) {}

Page::Page(std::shared_ptr<Browser> browser, std::shared_ptr<chromium::ChromiumPage> page)
    : browser_(std::move(browser)), of_ours_(std::make_unique<OnLoop<chromium::ChromiumPage>>(std::move(page))) {}

std::shared_ptr<BrowserPage> Page::get() const {
  return of_host_ ? of_host_ : of_ours_->get();
}

std::shared_ptr<chromium::ChromiumPage> Page::chromium_page() const {
  return of_ours_ ? of_ours_->get() : nullptr;
}

const Loop* Page::loop() const noexcept {
  return of_ours_ ? of_ours_->loop() : loop_.get();
}

}  // namespace vision::c

vision_page* vision_page_new(vision_runtime* runtime, const vision_page_functions* functions, void* host) {
  return vision::c::guarded([&] {
    vision::c::check(*functions);
    auto page = std::make_shared<vision::c::HostPage>(*functions, host);
    return new vision_page{std::make_shared<vision::c::Page>(runtime->loop, std::move(page))};
  });
}

void vision_page_release(vision_page* page) {
  delete page;
}
