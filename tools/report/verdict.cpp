#include "tools/report/verdict.hpp"

#include <fmt/core.h>

#include <algorithm>

#include "tools/report/words.hpp"

namespace report {
namespace {

std::string of(const Share& share) {
  return grouped(share.hits) + " of " + grouped(share.trials);
}

// "at most 79 %", and "at most 79.6 %" where the whole number would be the bar itself.
std::string at_most(double share, double bar) {
  const std::string rounded = percent_at_most(share);
  return "at most " + (rounded == percent(bar) ? fmt::format("{:.1f} %", share * 100) : rounded);
}

// A share that has not reached its bar: too low for certain, or undecided.
Judgement below(const Share& share, double bar, const Criteria& criteria, const std::string& what) {
  const double most = upper_bound(share, criteria.confidence);
  const std::string seen = what + " " + percent(share.value().value_or(0)) + " (" + of(share) + ")";
  if (most < bar) {
    return {Verdict::not_yet, seen + ", " + at_most(most, bar) + ", and the bar is " + percent(bar) +
                                  "; more of the same will not change that"};
  }
  return {Verdict::inconclusive, seen + ", between " + percent(lower_bound(share, criteria.confidence)) + " and " +
                                     percent_at_most(most) + ": either side of the bar of " + percent(bar)};
}

Judgement without_events(const Evidence& evidence) {
  if (evidence.unjudged > 0) {
    return {Verdict::inconclusive, "nothing judged yet; " + counted(evidence.unjudged, "proposal") +
                                       " can be judged by eye in the report or with --labels"};
  }
  if (evidence.missions.trials > 0) {
    return {Verdict::inconclusive, "it acts (" + of(evidence.missions) +
                                       " missions succeeded), and no event shows what would have been right"};
  }
  return {Verdict::inconclusive, "no event to judge"};
}

}  // namespace

std::string_view name(Verdict verdict) {
  switch (verdict) {
    case Verdict::promote: return "PROMOTE";
    case Verdict::not_yet: return "NOT YET";
    case Verdict::demote: return "DEMOTE";
    case Verdict::inconclusive: break;
  }
  return "INCONCLUSIVE";
}

Judgement decide(const Evidence& evidence, const Criteria& criteria) {
  const Share& missions = evidence.missions;
  const double most_missions = upper_bound(missions, criteria.confidence);
  if (missions.trials > 0 && most_missions < criteria.mission_success) {
    return {Verdict::demote, of(missions) + " missions succeeded (at most " + percent_at_most(most_missions) +
                                 "); below " + percent(criteria.mission_success) +
                                 " the site mostly pays for vision and for the agent"};
  }

  const Share& agreement = evidence.agreement;
  const Share& places = evidence.places;
  const double bar = std::max(criteria.agreement, Criteria::least_agreement);
  if (agreement.trials == 0) return without_events(evidence);
  if (!agreement.at_least(bar)) return below(agreement, bar, criteria, "actions agree in");
  if (places.trials == 0 && evidence.unplaced_clicks > 0) {
    return {Verdict::inconclusive, "the actions agree, but no event says where the right click was"};
  }
  if (places.trials > 0 && !places.at_least(Criteria::least_near)) {
    return below(places, Criteria::least_near, criteria, "places agree in");
  }

  const std::string seen = percent(agreement.value().value_or(0)) + ", at least " +
                           percent(lower_bound(agreement, criteria.confidence)) + " (" + of(agreement) + ")";
  if (agreement_suffices(agreement, criteria)) return {Verdict::promote, "actions agree in " + seen};
  // A site whose rate is the bar itself never gets clear of it.
  const bool on_course = agreement.hits == agreement.trials ||
                         static_cast<double>(agreement.hits) > bar * static_cast<double>(agreement.trials) + 1e-9;
  const auto needed = agreeing_events_needed(agreement, criteria);
  if (!on_course || !needed) {
    return {Verdict::inconclusive, "actions agree in " + seen + ": too close to the bar of " + percent(bar)};
  }
  return {
      Verdict::not_yet,
      grouped(*needed) + " more agreeing " + (*needed == 1 ? "event" : "events") + " needed; actions agree in " + seen,
      needed};
}

}  // namespace report
