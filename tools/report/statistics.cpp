#include "tools/report/statistics.hpp"

#include <boost/math/distributions/binomial.hpp>

namespace report {
namespace {

using Binomial = boost::math::binomial_distribution<double>;

// For every number of events, the least number of agreeing ones that suffices, or
// more than there are events. Never shrinks from one number of events to the next.
class Threshold {
 public:
  explicit Threshold(const Criteria& criteria) : criteria_(criteria) {}
  std::int64_t at(std::int64_t events) {
    if (events < Criteria::least_events) return events + 1;
    while (least_ <= events && !agreement_suffices({least_, events}, criteria_)) ++least_;
    return least_;
  }

 private:
  Criteria criteria_;
  std::int64_t least_ = 0;
};

}  // namespace

std::optional<double> Share::value() const {
  if (trials == 0) return std::nullopt;
  return static_cast<double>(hits) / static_cast<double>(trials);
}

// 7 of 10 are 0.7, although 0.7 * 10 is a little more than 7 in floating point.
bool Share::at_least(double least) const {
  return trials > 0 && static_cast<double>(hits) >= least * static_cast<double>(trials) - 1e-9;
}

double lower_bound(const Share& share, double confidence) {
  if (share.hits == 0) return 0;
  return Binomial::find_lower_bound_on_p(static_cast<double>(share.trials), static_cast<double>(share.hits),
                                         1 - confidence);
}

double upper_bound(const Share& share, double confidence) {
  if (share.hits == share.trials) return 1;
  return Binomial::find_upper_bound_on_p(static_cast<double>(share.trials), static_cast<double>(share.hits),
                                         1 - confidence);
}

bool agreement_suffices(const Share& agreement, const Criteria& criteria) {
  return agreement.trials >= Criteria::least_events && agreement.at_least(Criteria::least_agreement) &&
         lower_bound(agreement, criteria.confidence) >= criteria.agreement;
}

std::optional<std::int64_t> agreeing_events_needed(const Share& agreement, const Criteria& criteria) {
  constexpr std::int64_t most = 1'000'000;
  const auto suffices = [&](std::int64_t more) {
    return agreement_suffices({agreement.hits + more, agreement.trials + more}, criteria);
  };
  if (suffices(0)) return 0;
  std::int64_t too_few = 0, enough = 1;
  while (!suffices(enough)) {
    too_few = enough;
    enough *= 2;
    if (enough > most) return std::nullopt;
  }
  while (enough - too_few > 1) {
    const std::int64_t middle = (too_few + enough) / 2;
    (suffices(middle) ? enough : too_few) = middle;
  }
  return enough;
}

LookingCost looking_cost(std::int64_t events, double truth, const Criteria& criteria) {
  // all[k]: the chance of k agreeing events so far; waiting[k]: of those histories
  // in which no look has promoted the site yet.
  const std::vector<double> none(static_cast<std::size_t>(events) + 1, 0.0);
  std::vector<double> all = none, waiting = none;
  all[0] = waiting[0] = 1;
  double promoted = 0, promoted_now = 0;
  Threshold threshold(criteria);
  for (std::int64_t n = 1; n <= events; ++n) {
    const auto size = static_cast<std::size_t>(n);
    for (std::size_t k = size; k > 0; --k) {
      all[k] = all[k] * (1 - truth) + all[k - 1] * truth;
      waiting[k] = waiting[k] * (1 - truth) + waiting[k - 1] * truth;
    }
    all[0] *= 1 - truth;
    waiting[0] *= 1 - truth;
    promoted_now = 0;
    for (auto k = static_cast<std::size_t>(threshold.at(n)); k <= size; ++k) {
      promoted_now += all[k];
      promoted += std::exchange(waiting[k], 0.0);
    }
  }
  return {events, promoted_now, promoted};
}

std::optional<double> confidence_for_looking(std::int64_t events, const Criteria& criteria) {
  for (const double confidence : {0.95, 0.975, 0.98, 0.99, 0.995, 0.998, 0.999}) {
    Criteria stricter = criteria;
    stricter.confidence = confidence;
    if (confidence >= criteria.confidence &&
        looking_cost(events, criteria.agreement, stricter).every_event <= 1 - criteria.confidence) {
      return confidence;
    }
  }
  return std::nullopt;
}

}  // namespace report
