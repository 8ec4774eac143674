#include "vision/client/vision_client.hpp"

#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/internal/api_key.hpp"
#include "vision/client/internal/client_core.hpp"
#include "vision/runtime/internal/await.hpp"

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

asio::awaitable<ActionResult> ask_owning(detail::ClientCore& core, Bytes image, ImgMeta img_meta,
                                         const FlowContext& flow_context, AskOptions options) {
  co_return co_await core.ask(std::move(image), img_meta, flow_context, options);
}

}  // namespace

VisionClient::VisionClient(VisionClientOptions options) : VisionClient(http_client(options), options) {}

VisionClient::VisionClient(std::shared_ptr<MessagesClient> client, VisionClientOptions options)
    : core_(std::make_unique<detail::ClientCore>(metrics, std::move(client), options)) {}

VisionClient::~VisionClient() = default;

asio::awaitable<std::pair<Bytes, ImgMeta>> VisionClient::screenshot(BrowserPage& page, bool full_page) {
  return runtime::with_own_cancellation(core_->screenshot(page, full_page));
}

asio::awaitable<ActionResult> VisionClient::ask(Bytes image, ImgMeta img_meta, const FlowContext& flow_context,
                                                AskOptions options) {
  return runtime::with_own_cancellation(
      ask_owning(*core_, std::move(image), img_meta, flow_context, std::move(options)));
}

asio::awaitable<ActionResult> VisionClient::act(BrowserPage& page, const FlowContext& flow_context,
                                                AskOptions options) {
  return runtime::with_own_cancellation(core_->act(page, flow_context, std::move(options)));
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
