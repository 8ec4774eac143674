#include "tools/report/accumulators.hpp"

#include <cmath>
#include <limits>

namespace report {
namespace {

constexpr double accuracy = 0.0025;
const double log_growth = std::log((1 + accuracy) / (1 - accuracy));
constexpr int smallest_bucket = std::numeric_limits<int>::min();  // of zero and what is next to it
constexpr std::size_t most_stretches = 48;

}  // namespace

void Quantiles::add(double value) {
  const bool tiny = !(value > 1e-6);
  buckets_[tiny ? smallest_bucket : static_cast<int>(std::ceil(std::log(std::min(value, 1e18)) / log_growth))] += 1;
  count_ += 1;
}

std::optional<double> Quantiles::at(double rank) const {
  if (count_ == 0) return std::nullopt;
  const auto wanted = static_cast<std::int64_t>(std::ceil(rank * static_cast<double>(count_)));
  std::int64_t below = 0;
  auto bucket = buckets_.begin();
  while (below + bucket->second < wanted) below += (bucket++)->second;
  if (bucket->first == smallest_bucket) return 0;
  // The value whose relative distance to both ends of the bucket is the same.
  return std::exp(bucket->first * log_growth) * (1 - accuracy);
}

void Trend::add(std::int64_t unix_seconds, bool hit) {
  shares_[unix_seconds >> exponent_].count(hit);
  while (shares_.size() > most_stretches) {
    std::map<std::int64_t, Share> merged;
    for (const auto& [number, share] : shares_) merged[number >> 1].add(share);
    shares_ = std::move(merged);
    exponent_ += 1;
  }
}

std::vector<Trend::Stretch> Trend::stretches() const {
  std::vector<Stretch> out;
  for (const auto& [number, share] : shares_) out.push_back({number * (std::int64_t{1} << exponent_), share});
  return out;
}

void Calibration::add(double confidence, bool acts, bool right) {
  const double inside = std::clamp(confidence, 0.0, 1.0);
  Bin& bin = curve_[std::min(static_cast<std::size_t>(inside * bins + 1e-9), bins - 1)];
  bin.right.count(right);
  bin.confidence_sum += inside;
  events_ += 1;
  for (std::size_t i = 0; i < thresholds.size(); ++i) {
    if (acts && confidence >= thresholds[i]) acting_[i].count(!right);
  }
}

}  // namespace report
