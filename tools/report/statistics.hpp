#pragma once

#include <cstdint>
#include <optional>
#include <vector>

/// The arithmetic behind the verdicts. Pure; nothing here knows of logs.
namespace report {

/// `hits` out of `trials`.
struct Share {
  std::int64_t hits = 0;
  std::int64_t trials = 0;

  void count(bool hit) {
    trials += 1;
    hits += hit ? 1 : 0;
  }
  void add(const Share& other) {
    hits += other.hits;
    trials += other.trials;
  }
  /// Between 0 and 1; absent without trials.
  std::optional<double> value() const;
  /// Whether it is `least` or more. False without trials.
  bool at_least(double least) const;
};

/// The one-sided Clopper-Pearson bounds: with the probability `confidence` or
/// more, the share that the trials are a sample of is not below the lower (not
/// above the upper) one. 0 and 1 without trials. `confidence` is between 0 and 1,
/// both excluded.
double lower_bound(const Share& share, double confidence);
double upper_bound(const Share& share, double confidence);

/// What a site must show before it may act.
struct Criteria {
  double confidence = 0.95;      ///< of both bounds
  double agreement = 0.80;       ///< what the lower bound must reach
  double mission_success = 0.5;  ///< a site whose upper bound on successful missions is below it is demoted

  // The pipeline's own rule.
  static constexpr std::int64_t least_events = 10;
  static constexpr double least_agreement = 0.80;  ///< of the actions
  static constexpr double least_near = 0.70;       ///< of the places
};

/// Whether so many agreeing events are enough: the rule's count and share, and the
/// lower bound. Places are judged elsewhere.
bool agreement_suffices(const Share& agreement, const Criteria& criteria);

/// How many more events, all of them agreeing, make `agreement_suffices` true.
/// Absent when more than a million would be needed.
std::optional<std::int64_t> agreeing_events_needed(const Share& agreement, const Criteria& criteria);

/// The chance that a site whose true agreement is `truth` ever satisfies
/// `agreement_suffices` when it is asked after every event up to `events`, or only
/// once, after the last. Exact; takes time with the square of `events`.
struct LookingCost {
  std::int64_t events = 0;
  double once = 0;
  double every_event = 0;
};
LookingCost looking_cost(std::int64_t events, double truth, const Criteria& criteria);

/// The least of a few usual confidences (0.95 to 0.999, none below the criteria's)
/// at which even a look after every one of `events` promotes a site at exactly the
/// bar with no more than the chance that the criteria allow a single look. Absent
/// when none is enough.
std::optional<double> confidence_for_looking(std::int64_t events, const Criteria& criteria);

}  // namespace report
