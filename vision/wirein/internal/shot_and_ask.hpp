#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"

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

/// An answer and the metadata of the screenshot that it is about. Never null.
using Answered = std::unique_ptr<std::pair<ActionResult, ImgMeta>>;

/// The step that the modes share: a screenshot, its fixture, one ask about it.
/// `page` is let go of as soon as the screenshot is taken; all references must
/// outlive the operation.
boost::asio::awaitable<Answered> shot_and_ask(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                              const FlowContext& flow_context, const Site& site,
                                              const AskOptions& options);

}  // namespace vision::detail
