#pragma once

#include <boost/asio/awaitable.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "vision/records/bytes.hpp"
#include "vision/wirein/losses.hpp"

namespace vision {

/// Where screenshots are stored, below the current directory.
inline constexpr std::string_view fixture_folder = "tests/fixtures/vision/auto";

/// Whether KX_VISION_FIXTURE_AUTO asks for them. Read at every call.
bool harvesting_is_on() noexcept;

/// Stores a screenshot for the smoke-test harness when KX_VISION_FIXTURE_AUTO is
/// "1", "true" or "yes" (blanks around it do not matter), as
/// tests/fixtures/vision/auto/<hotspot_id>/<run_id or "run">_<Unix seconds>.png
/// under the current directory (files 0600, directories 0700). Returns that path.
///
/// Absent when harvesting is off or the file could not be written; the latter is
/// logged at debug level, "fixture harvest failed: %s", counted by fixture_losses,
/// and never raised. A hotspot_id or run_id that would lead outside the folder
/// (empty, ".", "..", one with a path separator or a NUL) is refused in the same
/// way, and so is every screenshot while runtime::max_waiting_jobs others wait to
/// be written.
///
/// The file work is done on the worker thread. Cancellation (terminal) ends the
/// wait; a write that was handed over may still complete.
boost::asio::awaitable<std::optional<std::string>> _harvest_fixture(Bytes image_bytes, std::string hotspot_id,
                                                                    std::optional<std::string> run_id);

}  // namespace vision
