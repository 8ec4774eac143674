#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <string>

#include "vision/client/prompt.hpp"
#include "vision/records/action_result.hpp"
#include "vision/wirein/losses.hpp"

/// The shadow log: one JSON object a line, appended for later comparison of what
/// vision proposed with what was done. Writing it never fails its caller.
namespace vision {

/// Where records go: KX_VISION_SHADOW_LOG when set and not empty, else
/// "logs/vision_shadow.jsonl" under the current directory. Read at every call.
std::string _shadow_log_path();

/// Appends `rec` as one line to the shadow log, in one write, creating the file
/// (mode 0600) and its directories (0700) as needed. The path may name a regular
/// file or a character device; symbolic links are followed. A line that another
/// writer left cut short spoils no record but its own.
///
/// Blocks for one small write and suspends never. Any error is logged at debug
/// level, "shadow log append failed: %s", counted by shadow_log_losses, and costs
/// the record only. Safe from several threads and processes at once on a local
/// file system.
void _append_shadow_record(const boost::json::object& rec) noexcept;

/// The full description of one proposal: eleven members, always all present.
boost::json::object _observe_action_record(const ActionResult& result);

/// The "vision" member of an observer's record: the action record of a proposal,
/// {"timeout", "elapsed_ms", "reason"} for a call that timed out, or {"error",
/// "elapsed_ms"} for one that failed. A model's own declare_failure is a proposal
/// unless its reason speaks of a timeout.
boost::json::object _vision_block(const ActionResult& result);

namespace detail {

/// The five members that every record begins with. `wall_seconds`, since the Unix
/// epoch, becomes "ts" in UTC at whole seconds.
boost::json::object record_header(double wall_seconds, const std::optional<std::string>& run_id,
                                  const std::string& hotspot_id, const FlowContext& flow_context);

}  // namespace detail
}  // namespace vision
