#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision::detail {

/// What VisionClient's operations do, for callers inside the library: each runs in the
/// caller's own cancellation state, where those of VisionClient make one of their own.
/// What is passed by reference must outlive the operation.
class ClientCore {
 public:
  ClientCore(VisionMetrics& metrics, std::shared_ptr<MessagesClient> client, const VisionClientOptions& options);

  boost::asio::awaitable<std::pair<Bytes, ImgMeta>> screenshot(BrowserPage& page, bool full_page = false);
  boost::asio::awaitable<ActionResult> ask(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                                           const AskOptions& options);
  boost::asio::awaitable<ActionResult> act(BrowserPage& page, const FlowContext& flow_context, AskOptions options);

 private:
  struct Call;
  struct Attempt;

  MessagesRequest make_request(Bytes image, const ImgMeta& img_meta, const FlowContext& flow_context,
                               const AskOptions& options);
  Attempt conclude(runtime::Outcome<boost::json::value>& response, const Call& call, bool may_retry);
  ActionResult timed_out(const Call& call);
  Attempt failed(const Call& call, const std::exception_ptr& error, bool may_retry);
  boost::asio::awaitable<void> run_hook(const ActionResult& result, const FlowContext& flow_context);
  ActionResult _failure(Cause cause, std::string reason, const std::string& model, double latency_ms);
  void _log_call(const ActionResult& result, const FlowContext& flow_context) const;

  VisionMetrics& _metrics;
  const std::shared_ptr<MessagesClient> _client;
  const std::string _default_model;
  const std::int64_t _call_budget;
  const OnAction _on_action;
  std::map<std::string, std::shared_ptr<const std::string>> _prefixes;  // per model: the default and the heavy one
};

}  // namespace vision::detail
