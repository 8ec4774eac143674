#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/compare.hpp"
#include "tools/report/record.hpp"

namespace report {

/// One proposal that the report shows: an event or a step of a mission. Owns its
/// texts, each cut at 400 code points.
struct Moment {
  Moment(const Record& record, const Proposal& proposal);

  std::int64_t ts;
  std::string site, model;
  std::optional<std::string> run;
  std::string action, reason, next_expected_state;
  std::optional<double> confidence, x_ratio, y_ratio;
  double latency_ms;
  std::int64_t step, max_steps;  ///< 0 outside a mission

  // What was right, as far as it is known.
  std::string true_action, label;
  std::optional<double> true_x, true_y, true_w, true_h;
  std::optional<std::string> agent_text;  ///< of a miss-path record
  std::optional<double> agent_latency_ms;
  bool agent_failed = false;
  Comparison comparison;  ///< of a judged event
  bool by_eye = false;    ///< judged by a label

  /// The wronger, the greater: what the model was surer of, then what lies farther
  /// off, then what is newer.
  bool operator<(const Moment& other) const;
};

/// A mission with its steps, at most 64 of them.
struct Mission {
  std::int64_t begin = 0, end = 0;
  std::optional<std::string> run;
  std::string_view ending;  ///< Ending::name
  bool succeeded = false;
  std::int64_t steps_used = 0;
  std::string last_words;  ///< the reason it ended with
  std::vector<Moment> steps;

  /// What did not succeed is greater, then what is newer.
  bool operator<(const Mission& other) const;
};

}  // namespace report
