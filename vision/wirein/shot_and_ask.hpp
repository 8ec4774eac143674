#pragma once

#include <boost/asio/awaitable.hpp>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"

namespace vision::detail {

/// Where in the pipeline a mode was called: goes into records and fixture names.
struct Site {
  Site(std::string hotspot, std::optional<std::string> run) : hotspot_id(std::move(hotspot)), run_id(std::move(run)) {}
  std::string hotspot_id;
  std::optional<std::string> run_id;
};

/// The step that the modes share: a screenshot, its fixture, one ask about it.
/// Gives the answer with the metadata of the screenshot that it is about. All
/// references must outlive the operation.
boost::asio::awaitable<std::pair<ActionResult, ImgMeta>> shot_and_ask(VisionClient& client, BrowserPage& page,
                                                                      const FlowContext& flow_context, const Site& site,
                                                                      AskOptions options);

}  // namespace vision::detail
