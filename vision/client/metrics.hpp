#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vision/records/action_result.hpp"

namespace vision {

/// Counts per text. A missing key reads as 0; iteration is in the order in which
/// keys were first counted.
class Counter {
 public:
  /// A key and how often it was counted.
  using Entry = std::pair<std::string, std::int64_t>;

  /// Counts `key` once more.
  void increment(std::string_view key);
  /// How often `key` was counted; 0 for one that never was.
  std::int64_t operator[](std::string_view key) const;
  ///@{
  /// The entries, in the order in which their keys were first counted. Counting
  /// invalidates iterators.
  std::vector<Entry>::const_iterator begin() const noexcept { return entries_.begin(); }
  std::vector<Entry>::const_iterator end() const noexcept { return entries_.end(); }
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  ///@}
  /// Forgets everything.
  void clear() noexcept;

 private:
  std::vector<Entry> entries_;
  std::unordered_map<std::string, std::size_t> places_;
};

/// The ledger of one VisionClient for one run of the pipeline. Its `call_count`
/// is what the call budget is compared with; its fields are what a run report
/// reads. Grows until `reset`. Not thread-safe: it belongs to the event loop that
/// runs the client's calls.
class VisionMetrics {
 public:
  std::int64_t call_count = 0;           ///< finished calls, those that failed included
  std::int64_t total_input_tokens = 0;   ///< saturates at INT64_MIN and INT64_MAX
  std::int64_t total_output_tokens = 0;  ///< saturates at INT64_MIN and INT64_MAX
  std::vector<double> latencies_ms;      ///< of every call, in recording order
  Counter failures_by_reason;            ///< declare_failure results, by the first 80 code points of their reason
  Counter by_model;                      ///< calls by the model that answered

  /// Counts one finished call.
  void record(const ActionResult& result);

  /// sorted[max(0, floor(0.95 n) - 1)] of the n recorded latencies; 0.0 without calls.
  double p95() const;

  /// An estimate in US dollars: each model's calls at the run's average tokens per call
  /// and the model's price per million tokens in and out. The prices are fixed
  /// reference prices, for comparing runs only: 3 and 15 for the light model, 5 and 25
  /// for any other, and for all while no model registry has been supplied. Never
  /// throws.
  double estimated_cost_usd() const noexcept;

  /// Back to an empty ledger.
  void reset() noexcept;
};

}  // namespace vision
