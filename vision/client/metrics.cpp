#include "vision/client/metrics.hpp"

#include <algorithm>
#include <limits>

#include "vision/settings/internal/defaults.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision {
namespace {

constexpr std::size_t reason_key_code_points = 80;

// Token counts come from a peer; their sum must not overflow.
std::int64_t saturating_sum(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

double price_of(const detail::PriceMap& (*prices)(), const std::string& model, double fallback) noexcept {
  try {
    for (const auto& [name, price] : prices()) {
      if (name == model) return price;
    }
    return fallback;
  } catch (...) {
    return fallback;  // the host has not named its models yet
  }
}

}  // namespace

void Counter::increment(std::string_view key) {
  const auto [place, is_new] = places_.try_emplace(std::string(key), entries_.size());
  if (is_new) entries_.emplace_back(key, 0);
  ++entries_[place->second].second;
}

std::int64_t Counter::operator[](std::string_view key) const {
  const auto place = places_.find(std::string(key));
  return place == places_.end() ? 0 : entries_[place->second].second;
}

void Counter::clear() noexcept {
  entries_.clear();
  places_.clear();
}

void VisionMetrics::record(const ActionResult& result) {
  ++call_count;
  total_input_tokens = saturating_sum(total_input_tokens, result.input_tokens);
  total_output_tokens = saturating_sum(total_output_tokens, result.output_tokens);
  latencies_ms.push_back(result.latency_ms);
  if (!result.model_used.empty()) by_model.increment(result.model_used);
  if (result.action == ActionVerb::declare_failure) {
    failures_by_reason.increment(text::first_code_points(result.reason, reason_key_code_points));
  }
}

double VisionMetrics::p95() const {
  if (latencies_ms.empty()) return 0.0;
  std::vector<double> sorted = latencies_ms;
  const auto position = static_cast<std::ptrdiff_t>(0.95 * static_cast<double>(sorted.size()));
  const auto nth = sorted.begin() + std::max<std::ptrdiff_t>(0, position - 1);
  std::nth_element(sorted.begin(), nth, sorted.end());
  return *nth;
}

double VisionMetrics::estimated_cost_usd() const noexcept {
  constexpr double per_million = 1000000;
  constexpr double fallback_input = 5.0, fallback_output = 25.0;
  const auto calls = static_cast<double>(std::max<std::int64_t>(call_count, 1));
  const double avg_in = static_cast<double>(total_input_tokens) / calls;
  const double avg_out = static_cast<double>(total_output_tokens) / calls;
  double cost = 0.0;
  for (const auto& [model, count] : by_model) {
    const double in_rate = price_of(detail::COST_PER_MTOK_INPUT, model, fallback_input) / per_million;
    const double out_rate = price_of(detail::COST_PER_MTOK_OUTPUT, model, fallback_output) / per_million;
    cost += static_cast<double>(count) * (avg_in * in_rate + avg_out * out_rate);
  }
  return cost;
}

void VisionMetrics::reset() noexcept {
  call_count = total_input_tokens = total_output_tokens = 0;
  latencies_ms.clear();
  failures_by_reason.clear();
  by_model.clear();
}

}  // namespace vision
