#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <memory>

#include "vision/wirein/internal/shot_and_ask.hpp"

namespace vision::detail {

/// One observation: a screenshot and a single ask (no transport retry), bounded
/// by DEFAULT_TIMEOUT_S + 8 seconds. Gives the "vision" member of an observer's
/// record, whatever happens; only cancellation is thrown.
boost::asio::awaitable<boost::json::object> observe(VisionClient& client, std::shared_ptr<BrowserPage> page,
                                                    const FlowContext& flow_context, const Site& site,
                                                    bool high_stakes);

}  // namespace vision::detail
