#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <string>

#include "vision/records/action_result.hpp"
#include "vision/records/flow_context.hpp"

/// What the modes write of an answer.
namespace vision {

/// The full description of one proposal: eleven members, always all present. With the
/// `storage` of the record that it goes into it is not copied there.
boost::json::object _observe_action_record(const ActionResult& result, boost::json::storage_ptr storage = {});

/// The "vision" member of an observer's record: the action record of a proposal,
/// {"timeout", "elapsed_ms", "reason"} for a call that timed out, or {"error",
/// "elapsed_ms"} for one that failed. A model's own declare_failure is a proposal
/// unless its reason speaks of a timeout.
boost::json::object _vision_block(const ActionResult& result);

namespace detail {

/// The five members that every record begins with. `wall_seconds`, since the Unix
/// epoch, becomes "ts" in UTC at whole seconds. The record owns its memory as one
/// block, in which nothing that is replaced is freed.
boost::json::object record_header(double wall_seconds, const std::optional<std::string>& run_id,
                                  const std::string& hotspot_id, const FlowContext& flow_context);

}  // namespace detail
}  // namespace vision
