#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "bindings/c/operation.hpp"
#include "vision/runtime/internal/duration.hpp"

namespace vision::c {
namespace json = boost::json;
namespace {

int whole(std::int64_t value) {
  return static_cast<int>(std::clamp<std::int64_t>(value, -1, std::numeric_limits<int>::max()));
}

Output browser_output(std::shared_ptr<chromium::Browser> browser) {
  Output out;
  out.browser = std::make_shared<Browser>(std::move(browser));
  return out;
}

Output page_output(const Input& in, std::shared_ptr<chromium::ChromiumPage> page, std::optional<bool> fast) {
  if (fast) page->optimize_for_speed(*fast);
  const json::object value = {{"target_id", page->target_id()}};
  Output out(value);
  out.page = std::make_shared<Page>(in.browser_handle, std::move(page));
  return out;
}

asio::awaitable<Output> launch(const Input&, Options options) {
  chromium::LaunchOptions launch;
  if (auto value = options.text("executable")) launch.executable(std::move(*value));
  if (const auto value = options.flag("headless")) launch.headless(*value);
  if (auto values = options.texts("arguments")) {
    for (std::string& value : *values) launch.argument(std::move(value));
  }
  if (const auto value = options.milliseconds("launch_timeout_s")) launch.launch_timeout(*value);
  if (const auto value = options.milliseconds("command_timeout_s")) launch.command_timeout(*value);
  options.finish();
  auto browser = co_await chromium::launch(std::move(launch));
  co_return browser_output(std::move(browser));
}

asio::awaitable<Output> connect(const Input&, Options options) {
  chromium::ConnectOptions connect;
  std::string url = options.required(&Options::text, "url");
  if (const auto value = options.milliseconds("command_timeout_s")) connect.command_timeout(*value);
  if (const auto value = options.flag("allow_remote")) connect.allow_remote(*value);
  options.finish();
  auto browser = co_await chromium::connect(std::move(url), connect);
  co_return browser_output(std::move(browser));
}

asio::awaitable<Output> new_page(const Input& in, Options options) {
  chromium::PageOptions page_options;
  const auto width = options.integer("width"), height = options.integer("height");
  page_options.viewport(whole(width.value_or(page_options.width())), whole(height.value_or(page_options.height())));
  if (const auto value = options.number("device_pixel_ratio")) page_options.device_pixel_ratio(*value);
  const auto fast = options.flag("optimize_for_speed");
  options.finish();
  const auto browser = in.browser();
  auto page = co_await browser->new_page(page_options);
  co_return page_output(in, std::move(page), fast);
}

asio::awaitable<Output> attach(const Input& in, Options options) {
  std::string target_id = options.required(&Options::text, "target_id");
  const auto fast = options.flag("optimize_for_speed");
  options.finish();
  const auto browser = in.browser();
  auto page = co_await browser->attach(std::move(target_id));
  co_return page_output(in, std::move(page), fast);
}

asio::awaitable<Output> pages(const Input& in, Options options) {
  options.finish();
  const auto browser = in.browser();
  const auto infos = co_await browser->pages();
  json::array list;
  for (const auto& info : infos) {
    list.push_back({{"target_id", info.target_id}, {"url", info.url}, {"title", info.title}});
  }
  co_return Output(std::move(list));
}

asio::awaitable<Output> close_browser(const Input& in, Options options) {
  options.finish();
  const auto browser = in.browser();
  co_await browser->close();
  co_return Output();
}

asio::awaitable<Output> navigate(const Input& in, Options options) {
  std::string url = options.required(&Options::text, "url");
  options.finish();
  const auto page = in.chromium_page();
  co_await page->navigate(std::move(url));
  co_return Output();
}

asio::awaitable<Output> close_page(const Input& in, Options options) {
  options.finish();
  const auto page = in.chromium_page();
  co_await page->close();
  co_return Output();
}

asio::awaitable<Output> evaluate(const Input& in, Options options) {
  std::string expression = options.required(&Options::text, "expression");
  options.finish();
  const auto page = in.page();
  json::value value = co_await page->evaluate(std::move(expression));
  co_return Output(std::move(value));
}

asio::awaitable<Output> click(const Input& in, Options options) {
  const double x = options.required(&Options::number, "x"), y = options.required(&Options::number, "y");
  options.finish();
  const auto page = in.page();
  co_await page->mouse().click(x, y);
  co_return Output();
}

asio::awaitable<Output> wheel(const Input& in, Options options) {
  const double x = options.required(&Options::number, "delta_x"), y = options.required(&Options::number, "delta_y");
  options.finish();
  const auto page = in.page();
  co_await page->mouse().wheel(x, y);
  co_return Output();
}

asio::awaitable<Output> type(const Input& in, Options options) {
  std::string text = options.required(&Options::text, "text");
  const auto delay = runtime::to_duration(options.required(&Options::number, "delay_ms") / 1000);
  options.finish();
  const auto page = in.page();
  co_await page->keyboard().type(std::move(text), std::chrono::ceil<std::chrono::milliseconds>(delay));
  co_return Output();
}

asio::awaitable<Output> press(const Input& in, Options options) {
  std::string key = options.required(&Options::text, "key");
  options.finish();
  const auto page = in.page();
  co_await page->keyboard().press(std::move(key));
  co_return Output();
}

constexpr std::array<Kind, 13> kinds = {{{"chromium_launch", false, launch},
                                         {"chromium_connect", false, connect},
                                         {"browser_new_page", false, new_page},
                                         {"browser_attach", false, attach},
                                         {"browser_pages", false, pages},
                                         {"browser_close", false, close_browser},
                                         {"page_navigate", false, navigate},
                                         {"page_close", false, close_page},
                                         {"page_evaluate", false, evaluate},
                                         {"page_mouse_click", false, click},
                                         {"page_mouse_wheel", false, wheel},
                                         {"page_keyboard_type", false, type},
                                         {"page_keyboard_press", false, press}}};

}  // namespace

std::span<const Kind> page_operations() {
  return kinds;
}

}  // namespace vision::c
