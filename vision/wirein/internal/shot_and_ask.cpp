#include "vision/wirein/internal/shot_and_ask.hpp"

#include "vision/wirein/internal/fixtures.hpp"

namespace vision::detail {
namespace asio = boost::asio;

/// A client's operations inside a mode. They share its cancellation state, where those
/// of the public interface make one each.
class ClientInMode {
 public:
  explicit ClientInMode(VisionClient& client) : client_(client) {}
  auto screenshot(BrowserPage& page) { return client_.screenshot_body(page, false); }
  auto ask(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context, const AskOptions& options) {
    return client_.ask_body(std::move(image), img_meta, flow_context, options);
  }

 private:
  VisionClient& client_;
};

asio::awaitable<Answered> shot_and_ask(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                       const FlowContext& flow_context, const Site& site, const AskOptions& options) {
  ClientInMode inner(client);
  auto [png, meta] = co_await inner.screenshot(*page);
  page.reset();
  co_await _harvest_fixture(png, site.hotspot_id, site.run_id);
  auto result = co_await inner.ask(std::move(png), meta, flow_context, options);
  co_return std::make_unique<std::pair<ActionResult, ImgMeta>>(std::move(*result), meta);
}

}  // namespace vision::detail
