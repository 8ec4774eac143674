#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// @file
/// The library's tunables, fixed for the life of the process, and the tier
/// switch, read at every call.
namespace vision {

namespace detail {

/// The value of DEFAULT_TIMEOUT_S, read from the environment.
double default_timeout_s() noexcept;

}  // namespace detail

///@{
/// Identifier of the light model (MODEL_SONNET) and of the heavy one (MODEL_OPUS),
/// copied from the host's model registry on first use. Throw std::runtime_error
/// while no registry has been supplied or it names no model; a later call tries
/// again. Safe from any thread.
const std::string& MODEL_SONNET();
const std::string& MODEL_OPUS();
///@}

/// Time-out of one model call in seconds: 20.0, or KX_VISION_TIMEOUT_S as it
/// stood when the process loaded the library. Always positive and finite.
inline const double DEFAULT_TIMEOUT_S = detail::default_timeout_s();

/// Pause in seconds before the one retry after a transport error.
inline constexpr double TRANSPORT_RETRY_DELAY_S = 1.5;
/// A parsed result below this confidence is marked low_confidence.
inline constexpr double LOW_CONFIDENCE_THRESHOLD = 0.6;
/// Calls allowed per run of the pipeline when the client is built without a budget.
inline constexpr std::int64_t DEFAULT_CALL_BUDGET = 50;
/// Step cap of the act loop when the caller sets none.
inline constexpr std::int64_t ACT_MAX_STEPS_DEFAULT = 8;
/// Seconds the act loop lets the page settle after a click, type or key action;
/// half that after a scroll.
inline constexpr double ACT_STEP_SETTLE_S = 1.0;
/// Upper bound in milliseconds on a wait that the act loop executes.
inline constexpr std::int64_t ACT_MAX_WAIT_MS = 10000;
/// Number of identical proposals in a row after which the act loop hands over.
inline constexpr int ACT_REPEAT_LIMIT = 3;
/// Seconds that a screenshot and its ask may take in the act loop, beyond two
/// time-outs (one attempt and its retry) of DEFAULT_TIMEOUT_S.
inline constexpr double ACT_STEP_MARGIN_S = 12;
/// Seconds that an observation may take beyond DEFAULT_TIMEOUT_S.
inline constexpr double OBSERVE_MARGIN_S = 8;

/// The mode in which the pipeline should use vision, from KX_VISION_TIER as it
/// stands now: "off" (also when unset or unknown), "shadow", "tier2" or "tier3".
/// Blanks and letter case do not matter; "act" means "tier2". No entry point reads
/// it: the pipeline asks, and calls the mode that it wants. Never fails.
std::string_view is_vision_enabled() noexcept;

}  // namespace vision
