#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/report/log_reader.hpp"
#include "tools/report/tally.hpp"

namespace report {

/// A model at a site, judged.
struct ModelReport {
  std::string name;
  const ModelTally* tally = nullptr;
  Judgement judgement;
  std::optional<double> observing_usd, acting_usd;  ///< absent when the model has no price
};

/// A site, judged by the least favourable of its models.
struct SiteReport {
  std::string name;
  const SiteTally* tally = nullptr;  ///< null for a --site without a record
  Judgement judgement;
  std::vector<ModelReport> models;  ///< by name
};

/// What all outputs are made from: the text, the JSON and the pages.
struct Report {
  std::int64_t created = 0;  ///< Unix seconds
  Criteria criteria;
  TallyOptions options;
  InputStats input;
  std::int64_t counted = 0, unfinished_missions = 0;
  struct LabelCounts {
    std::int64_t read = 0;
    std::int64_t unused = 0;     ///< match no record
    std::int64_t ambiguous = 0;  ///< match several records
  } labels;
  std::string prices_as_of, prices_source;
  double usd = 0;                            ///< of the models that have a price
  std::vector<std::string> unpriced_models;  ///< that used tokens and have none
  std::vector<SiteReport> sites;             ///< by name
  FailureCounts failures;
  std::vector<LookingCost> looking;              ///< of a site at exactly the bar
  std::optional<double> confidence_for_looking;  ///< for the last of them

  /// Whether there is a site and every one is PROMOTE.
  bool all_promoted() const;
};

/// Judges what was counted. The tally must outlive the report.
Report make_report(const Tally& tally, const TallyOptions& options, const Criteria& criteria, const Prices& prices);

/// Computes what repeated looking costs under the report's criteria.
void add_looking_costs(Report& report);

}  // namespace report
