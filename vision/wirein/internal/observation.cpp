#include "vision/wirein/internal/observation.hpp"

#include <boost/asio/this_coro.hpp>

#include "vision/client/internal/client_core.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/fixtures.hpp"
#include "vision/wirein/internal/records.hpp"

namespace vision::detail {
namespace asio = boost::asio;

asio::awaitable<std::pair<ActionResult, ImgMeta>> shot_and_ask(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                                               const FlowContext& flow_context, const Site& site,
                                                               const AskOptions& options) {
  auto [png, meta] = co_await client._core().screenshot(*page);
  page.reset();
  co_await _harvest_fixture(png, site.hotspot_id, site.run_id);
  ActionResult result = co_await client._core().ask(std::move(png), meta, flow_context, options);
  co_return std::pair<ActionResult, ImgMeta>(std::move(result), meta);
}

asio::awaitable<boost::json::object> observe(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                             const FlowContext& flow_context, const Site& site, bool high_stakes) {
  const auto executor = co_await asio::this_coro::executor;
  runtime::TimeSource& time = runtime::time_source(executor);
  const auto t0 = time.wall_now();
  const auto limit = runtime::to_duration(DEFAULT_TIMEOUT_S + 8);
  const auto ask_options = AskOptions().high_stakes(high_stakes).transport_retry(false);
  auto operation = shot_and_ask(client, std::move(page), flow_context, site, ask_options);
  auto answer = co_await runtime::with_deadline(std::move(operation), limit);
  if (answer.has_value()) co_return _vision_block(answer.value().first);
  boost::json::object block;
  if (answer.timed_out()) {
    block["timeout"] = true;
  } else {
    block["error"] = text::exception_text(answer.error());
  }
  block["elapsed_ms"] = runtime::whole_ms(time.wall_now() - t0);
  co_return block;
}

}  // namespace vision::detail
