#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::detail {

/// Where in the pipeline a mode was called: goes into records and fixture names.
/// Refers to the options of the call.
struct Site {
  const std::string& hotspot_id;
  const std::optional<std::string>& run_id;
};

/// A page that the caller keeps alive.
inline std::shared_ptr<BrowserPage> borrowed(BrowserPage& page) {
  return std::shared_ptr<BrowserPage>(std::shared_ptr<void>(), &page);
}

/// The client of a call: the one that its options name, else the process-wide one.
/// Throws what default_client() throws.
template <class Options>
VisionClient& client_of(const Options& options) {
  return options.vision() ? *options.vision() : default_client();
}

/// The step that the modes share: a screenshot, its fixture, one ask about it. Returns
/// the answer with the metadata of that screenshot. `page` is released as soon as the
/// screenshot is taken; all references must outlive the operation.
boost::asio::awaitable<std::pair<ActionResult, ImgMeta>> shot_and_ask(VisionClient& client,
                                                                      std::shared_ptr<BrowserPage> page,
                                                                      const FlowContext& flow_context, const Site& site,
                                                                      const AskOptions& options);

/// The same for an observer: one ask without a transport retry, all of it bounded by
/// DEFAULT_TIMEOUT_S + 8 seconds. Returns the "vision" member of the observer's
/// record, whatever happens; throws only when the caller is cancelled.
boost::asio::awaitable<boost::json::object> observe(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                                    const FlowContext& flow_context, const Site& site,
                                                    bool high_stakes);

}  // namespace vision::detail
