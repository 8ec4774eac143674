#include "vision/client/vision_client.hpp"

#include <boost/asio/this_coro.hpp>
#include <cmath>
#include <stdexcept>

#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/internal/api_key.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/records/internal/coercion.hpp"
#include "vision/runtime/internal/deadline.hpp"
#include "vision/runtime/internal/entry.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

std::unique_ptr<VisionClient>& process_wide() {
  // Never destroyed: calls may be in flight while the process exits.
  static auto* const slot = new std::unique_ptr<VisionClient>;
  return *slot;
}

std::shared_ptr<MessagesClient> http_client(const VisionClientOptions& options) {
  (void)MODEL_SONNET();  // a missing registry is reported before a missing key
  return std::make_shared<HttpMessagesClient>(detail::resolve_api_key(options.api_key()), options.http());
}

// Coroutines, so that host code that throws before it suspends is no exception.
asio::awaitable<Bytes> take_screenshot(BrowserPage& page, ScreenshotOptions options) {
  co_return co_await page.screenshot(options);
}

asio::awaitable<double> device_pixel_ratio(BrowserPage& page) {
  const boost::json::value answer = co_await page.evaluate("window.devicePixelRatio");
  co_return _opt_float(&answer).value_or(std::nan(""));
}

std::int64_t viewport_side(const boost::json::object& size, std::string_view name) {
  const auto* value = size.if_contains(name);
  if (!value) throw std::out_of_range("the page's viewport_size has no \"" + std::string(name) + "\"");
  if (const auto side = _opt_int(value)) return *side;
  throw ConversionError("the page's viewport " + std::string(name) + " is no number: " + text::to_json(*value));
}

}  // namespace

VisionClient::VisionClient(VisionClientOptions options) : VisionClient(http_client(options), options) {}

VisionClient::VisionClient(std::shared_ptr<MessagesClient> client, VisionClientOptions options)
    : _client(std::move(client)),
      _default_model(options.default_model().value_or(MODEL_SONNET())),
      _call_budget(options.call_budget()),
      _on_action(options.on_action()) {
  if (!_client) throw std::invalid_argument("VisionClient: the MessagesClient is null");
}

asio::awaitable<std::pair<Bytes, ImgMeta>> VisionClient::screenshot(BrowserPage& page, bool full_page) {
  return runtime::entry(screenshot_body(page, full_page));
}

asio::awaitable<std::pair<Bytes, ImgMeta>> VisionClient::screenshot_body(BrowserPage& page, bool full_page) {
  const auto options = ScreenshotOptions().full_page(full_page);
  Bytes image = co_await runtime::isolated(take_screenshot(page, options));
  auto ratio = co_await runtime::settle(device_pixel_ratio(page));
  const double dpr = ratio.has_value() && std::isfinite(ratio.value()) ? ratio.value() : 1.0;
  auto size = page.viewport_size();
  if (!size || size->empty()) size = boost::json::object{{"width", 1280}, {"height", 800}};
  const std::int64_t width = viewport_side(*size, "width"), height = viewport_side(*size, "height");
  const ImgMeta meta(width, height, dpr, co_await runtime::wall_seconds());
  co_return std::pair<Bytes, ImgMeta>(std::move(image), meta);
}

asio::awaitable<ActionResult> VisionClient::act(BrowserPage& page, const FlowContext& flow_context,
                                                AskOptions options) {
  return runtime::entry(act_body(page, flow_context, std::move(options)));
}

auto VisionClient::act_body(BrowserPage& page, const FlowContext& flow_context, AskOptions options)
    -> asio::awaitable<Answer> {
  auto [image, meta] = co_await screenshot_body(page, false);
  FlowContext context = flow_context;
  if (!context.contains("viewport")) {
    auto& viewport = context["viewport"].emplace_object();
    viewport["w"] = meta.width_css;
    viewport["h"] = meta.height_css;
    viewport["dpr"] = meta.dpr;
  }
  options.transport_retry(true);
  co_return co_await ask_body(std::move(image), meta, context, options);
}

VisionClient& default_client() {
  auto& client = process_wide();
  if (!client) client = std::make_unique<VisionClient>();
  return *client;
}

void reset_default_metrics() {
  if (process_wide()) process_wide()->metrics.reset();
}

}  // namespace vision
