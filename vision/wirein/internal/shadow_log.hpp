#pragma once

#include <boost/json/object.hpp>
#include <string>

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
/// Blocks for one small write and never suspends. Any error is logged at debug
/// level, "shadow log append failed: %s", counted by shadow_log_losses, and costs
/// the record only. Safe from several threads and processes at once on a local
/// file system.
void _append_shadow_record(const boost::json::object& rec) noexcept;

}  // namespace vision
