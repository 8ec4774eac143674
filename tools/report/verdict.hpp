#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/report/statistics.hpp"

namespace report {

/// From the least to the most favourable.
enum class Verdict { demote, inconclusive, not_yet, promote };

/// "PROMOTE", "NOT YET", "INCONCLUSIVE" or "DEMOTE".
std::string_view name(Verdict verdict);

/// What is known of one model at one site.
struct Evidence {
  Share agreement{};                 ///< of the action, among the events that could be judged
  Share places{};                    ///< of the place, among agreeing actions whose true place is known
  std::int64_t unplaced_clicks = 0;  ///< agreeing clicks whose true place is not known
  std::int64_t unjudged = 0;         ///< proposals for which nothing records what was right
  Share missions{};                  ///< that succeeded, among those that say something about the site
};

/// A verdict and why.
struct Judgement {
  Verdict verdict = Verdict::inconclusive;
  std::string reason;                           ///< a phrase, without a full stop
  std::optional<std::int64_t> events_needed{};  ///< with not_yet, when more agreeing events are all that is missing
};

/// The verdict, by the first rule that applies: missions that mostly fail demote; a
/// share clearly below its bar (by the upper bound) is not yet; a share that may be
/// on either side is inconclusive; above the bar, the site is promoted when there are
/// enough events and not yet when there are too few.
Judgement decide(const Evidence& evidence, const Criteria& criteria);

}  // namespace report
