#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/ask_options.hpp"
#include "vision/client/http/http_options.hpp"
#include "vision/client/messages_client.hpp"
#include "vision/client/metrics.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/bytes.hpp"
#include "vision/records/errors.hpp"
#include "vision/records/flow_context.hpp"
#include "vision/records/img_meta.hpp"

namespace vision {

class BrowserPage;
namespace detail {
class ClientCore;
}

/// A hook that sees the result of every response, including responses without a tool
/// call, and the flow_context that `ask` received; calls that got no response do not
/// reach it. Both references are valid until its awaitable ends, which the call waits
/// for indefinitely. What it throws is logged as a warning and dropped.
using OnAction = std::function<boost::asio::awaitable<void>(const ActionResult&, const FlowContext&)>;

/// The optional parameters of VisionClient's constructors.
class VisionClientOptions {
 public:
  VisionClientOptions() {}

  /// The vendor API key. Empty: the host registry's resolve_api_key,
  /// then ANTHROPIC_API_KEY.
  VisionClientOptions& api_key(std::string value) & {
    api_key_ = std::move(value);
    return *this;
  }
  /// The model of calls not routed to the heavy model. Default MODEL_SONNET().
  VisionClientOptions& default_model(std::string value) & {
    default_model_ = std::move(value);
    return *this;
  }
  /// Calls allowed until the metrics are reset. Default DEFAULT_CALL_BUDGET.
  VisionClientOptions& call_budget(std::int64_t value) & {
    call_budget_ = value;
    return *this;
  }
  /// Run on the result of each response, before the call returns. Default: none.
  VisionClientOptions& on_action(OnAction value) & {
    on_action_ = std::move(value);
    return *this;
  }

  /// How the vendor is reached: endpoint, certificates, time-out. Not used with a
  /// MessagesClient of the host's. Default: HttpOptions().
  VisionClientOptions& http(HttpOptions value) & {
    http_ = std::move(value);
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  VisionClientOptions api_key(std::string value) && { return std::move(api_key(std::move(value))); }
  VisionClientOptions http(HttpOptions value) && { return std::move(http(std::move(value))); }
  VisionClientOptions default_model(std::string value) && { return std::move(default_model(std::move(value))); }
  VisionClientOptions call_budget(std::int64_t value) && { return std::move(call_budget(value)); }
  VisionClientOptions on_action(OnAction value) && { return std::move(on_action(std::move(value))); }
  ///@}

  ///@{
  /// The value that was set, or its default.
  const std::string& api_key() const noexcept { return api_key_; }
  const HttpOptions& http() const noexcept { return http_; }
  const std::optional<std::string>& default_model() const noexcept { return default_model_; }
  std::int64_t call_budget() const noexcept { return call_budget_; }
  const OnAction& on_action() const noexcept { return on_action_; }
  ///@}

 private:
  std::string api_key_;
  HttpOptions http_;
  std::optional<std::string> default_model_;
  std::int64_t call_budget_ = DEFAULT_CALL_BUDGET;
  OnAction on_action_;
};

/// Asks the hosted model about a screenshot. Holds the Messages API client, the
/// run's metrics and the model routing; the state of a workflow travels in the
/// caller's flow_context.
///
/// Not thread-safe: one client belongs to one event loop. Any number of its operations
/// may run at once there. The client, and what is passed by reference, must outlive the
/// operation. If the caller is cancelled, with any cancellation type its coroutine
/// accepts, the operation ends at once with operation_aborted.
class VisionClient {
 public:
  /// Talks to the vendor through an HttpMessagesClient with the options' key and HTTP
  /// options. Throws std::runtime_error when no API key is found or no model registry
  /// has been supplied, std::invalid_argument when the key (the message says where it
  /// came from), ANTHROPIC_BASE_URL or an HTTP option is malformed.
  explicit VisionClient(VisionClientOptions options = VisionClientOptions());

  /// Talks through `client`, which holds its own credentials; the options' API key and
  /// HTTP options are not used. Throws std::invalid_argument when `client` is null,
  /// std::runtime_error when no model registry has been supplied.
  explicit VisionClient(std::shared_ptr<MessagesClient> client, VisionClientOptions options = VisionClientOptions());

  ~VisionClient();
  VisionClient(const VisionClient&) = delete;  // it would have a second ledger, and so a second budget
  VisionClient& operator=(const VisionClient&) = delete;

  /// The run's ledger: every call that passed the budget gate and reached a
  /// result, once. The pipeline reads and resets it.
  VisionMetrics metrics;

  /// One vision call: sends the screenshot and the context, returns the
  /// model's answer as a typed result. A time-out, a transport error (after one retry) or
  /// any other error of the call comes back as a declare_failure result with the
  /// cause in `reason` and `cause`.
  ///
  /// Throws BudgetExceeded when metrics.call_count has reached the budget, and
  /// ConversionError when "attempts" in `flow_context` is not an integer; nothing is
  /// sent or recorded then. A call that is cancelled before its response has been
  /// read is not recorded; one that is cancelled in the hook has been.
  boost::asio::awaitable<ActionResult> ask(Bytes image, ImgMeta img_meta, const FlowContext& flow_context,
                                           AskOptions options = AskOptions());

  /// Captures the page as PNG with the metadata that turns ratios back into CSS
  /// pixels. With `full_page` the image covers the whole page, the metadata still
  /// the viewport. A device pixel ratio that cannot be read becomes 1.0, a missing
  /// viewport size 1280 x 800.
  ///
  /// Propagates the page's error when it cannot take the screenshot; throws
  /// std::out_of_range for a viewport size without width or height, and
  /// ConversionError for one that is not a number.
  boost::asio::awaitable<std::pair<Bytes, ImgMeta>> screenshot(BrowserPage& page, bool full_page = false);

  /// Takes a screenshot and asks about it, with the transport retry on. The
  /// on_action hook sees a copy of `flow_context` that has a "viewport" entry (w,
  /// h, dpr) unless the caller's has one. Throws what `screenshot` and `ask` throw.
  boost::asio::awaitable<ActionResult> act(BrowserPage& page, const FlowContext& flow_context,
                                           AskOptions options = AskOptions());

  /// The client's internals, for the modes. Not for hosts.
  detail::ClientCore& _core() noexcept { return *core_; }

 private:
  const std::unique_ptr<detail::ClientCore> core_;
};

/// The process-wide client, built with all defaults by the first call that
/// succeeds; lives until the process ends. Throws what the constructor throws.
/// Call it from the event loop's thread only.
VisionClient& default_client();

/// Resets the process-wide client's metrics; does nothing when none was built.
/// The pipeline calls it between two runs, so that the call budget is per run.
void reset_default_metrics();

}  // namespace vision
