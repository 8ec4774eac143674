#include "vision/wirein/shot_and_ask.hpp"

#include "vision/wirein/fixtures.hpp"

namespace vision::detail {
namespace asio = boost::asio;

asio::awaitable<std::pair<ActionResult, ImgMeta>> shot_and_ask(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                                               const FlowContext& flow_context, const Site& site,
                                                               AskOptions options) {
  auto [png, meta] = co_await client.screenshot(*page);
  page.reset();
  co_await _harvest_fixture(png, site.hotspot_id, site.run_id);
  ActionResult result = co_await client.ask(std::move(png), meta, flow_context, std::move(options));
  co_return std::pair<ActionResult, ImgMeta>(std::move(result), meta);
}

}  // namespace vision::detail
