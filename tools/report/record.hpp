#pragma once

#include <simdjson.h>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace report {

/// What the model proposed.
struct Proposal {
  std::string_view action, reason, next_expected_state, model;
  std::optional<double> confidence;  ///< not clamped; absent when it was no number
  std::optional<double> x_ratio, y_ratio;
  double latency_ms = 0;
  std::int64_t input_tokens = 0, output_tokens = 0;
};

/// A call without a proposal.
struct Failure {
  bool timed_out = false;
  std::string_view text;  ///< reason or error; may be empty
};

/// What a scripted step really did: `dom_ground_truth`.
struct Truth {
  std::string_view action{};  ///< "click" unless the host said otherwise; empty when it said nothing at all
  std::optional<double> x_ratio{}, y_ratio{};        ///< the middle of the element
  std::optional<double> w_ratio{}, h_ratio{};        ///< its size
  std::optional<double> viewport_w{}, viewport_h{};  ///< in CSS pixels
  std::string_view label{};
};

/// What became of the computer-use agent.
struct Agent {
  std::optional<double> latency_ms;  ///< absent when it failed
  std::string_view text;             ///< the head of its text, or its error
  bool failed = false;
};

/// One line of a shadow log, as far as the report reads it. Its texts belong to the
/// parser and last until the next line is parsed.
struct Record {
  enum class Kind { miss, success, act_step, act_final };

  Kind kind = Kind::miss;
  std::int64_t ts = 0;  ///< Unix seconds
  std::string_view ts_text, site;
  std::optional<std::string_view> run;
  std::optional<Proposal> proposal;  ///< absent with `failure` and with `terminal`
  std::optional<Failure> failure;
  Truth truth;                           ///< of success
  Agent agent;                           ///< of miss
  std::int64_t step = 0, max_steps = 0;  ///< of act_step and act_final
  std::string_view terminal;             ///< of act_final, the model's verdict; empty for an ending of the loop's own
  std::string_view outcome;              ///< of act_final
};

/// "2026-11-16T19:05:00Z" in Unix seconds; absent for anything else.
std::optional<std::int64_t> parse_timestamp(std::string_view text);

/// Not thread-safe; keeps the memory of its largest line.
class RecordParser {
 public:
  /// What must be readable behind a line.
  static constexpr std::size_t padding = simdjson::SIMDJSON_PADDING;

  /// Reads one line. Absent for what does not parse or is not one of the library's
  /// records. The pointer is valid until the next call.
  const Record* parse(std::string_view line);

 private:
  simdjson::dom::parser parser_;
  Record record_;
};

}  // namespace report
