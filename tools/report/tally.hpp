#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/report/accumulators.hpp"
#include "tools/report/failures.hpp"
#include "tools/report/fixtures.hpp"
#include "tools/report/labels.hpp"
#include "tools/report/moment.hpp"
#include "tools/report/prices.hpp"
#include "tools/report/verdict.hpp"

namespace report {

/// Which records count, and how much of them is kept for showing.
struct TallyOptions {
  std::optional<std::int64_t> since;                     ///< Unix seconds
  std::set<std::string, std::less<>> sites{}, models{};  ///< empty means all
  Viewport viewport{};
  std::size_t worst = 10, to_judge = 40, missions = 3;  ///< shown per site and model
};

/// The counts of one model at one site.
struct ModelTally {
  explicit ModelTally(const TallyOptions& options)
      : worst(options.worst), to_judge(options.to_judge), missions(options.missions) {}

  Evidence evidence;
  std::int64_t by_truth = 0, by_text = 0, by_label = 0, skipped = 0;  ///< how events were judged; skipped is not
  std::int64_t boxed = 0;                                             ///< places that were judged by the element's box
  std::int64_t would_not_act = 0;  ///< events in which it handed over or declared failure
  Quantiles distance_px, latency_ms;
  Calibration calibration;
  Trend trend;
  Spend observing, acting;
  std::map<std::string, std::int64_t> endings;  ///< of missions
  std::int64_t missions_ended = 0, mission_steps = 0;
  std::int64_t first = 0, last = 0;  ///< Unix seconds
  Greatest<Moment> worst;
  Sample<Moment> to_judge;
  Greatest<Mission> missions;
};

/// The counts of one site.
struct SiteTally {
  std::map<std::string, ModelTally> models;
  std::int64_t records = 0;
  FailureCounts failures;
  std::map<std::string, std::int64_t> unasked_missions;  ///< endings of missions in which no model was asked
};

/// Counts records as they come, in memory that grows with the sites and models but
/// not with the records.
class Tally {
 public:
  /// All must outlive the tally. `fixtures` may be null.
  Tally(const TallyOptions& options, Labels& labels, Fixtures* fixtures);

  void add(const Record& record);
  /// Call it once, after the last record: applies the labels and drops missions
  /// without an end.
  void finish();

  const std::map<std::string, SiteTally, std::less<>>& sites() const { return sites_; }
  std::int64_t counted() const { return counted_; }  ///< records that were not filtered out
  std::int64_t unfinished_missions() const { return unfinished_; }

 private:
  struct Open {
    std::string key;
    Mission mission;
    bool last_call_failed = false;
  };
  struct Labelled {
    const Labels::Label* label;
    ModelTally* model;
    Moment moment;
    bool acts;
  };

  ModelTally& model_of(SiteTally& site, std::string_view model, std::int64_t ts);
  void add_observation(SiteTally& site, const Record& record);
  void add_step(SiteTally& site, const Record& record);
  void add_end(SiteTally& site, const Record& record);
  void count_event(ModelTally& model, Moment moment, const Comparison& comparison, bool acts);
  bool is_filtered_out(const Record& record) const;
  Open& open_mission(const Record& record);

  const TallyOptions& options_;
  Labels& labels_;
  Fixtures* fixtures_;
  std::map<std::string, SiteTally, std::less<>> sites_;
  std::list<Open> open_;  // the one with the latest step last
  std::unordered_map<std::string, std::list<Open>::iterator> open_by_key_;
  std::vector<Labelled> labelled_;  // one per label that was found
  std::int64_t counted_ = 0, unfinished_ = 0;
};

}  // namespace report
