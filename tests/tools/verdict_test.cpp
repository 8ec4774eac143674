#include <gmock/gmock.h>

#include <cmath>

#include "tools/report/accumulators.hpp"
#include "tools/report/statistics.hpp"
#include "tools/report/verdict.hpp"
#include "tools/report/words.hpp"

namespace report {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// The chance of `least` or more hits, added up term by term.
double tail(std::int64_t least, std::int64_t trials, double truth) {
  double sum = 0;
  const auto n = static_cast<double>(trials);
  for (std::int64_t hits = least; hits <= trials; ++hits) {
    const auto k = static_cast<double>(hits);
    sum += std::exp(std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1) + k * std::log(truth) +
                    (n - k) * std::log1p(-truth));
  }
  return sum;
}

// Two-sided 95 % intervals as R's binom.test prints them: one-sided at 97.5 % each.
TEST(Bounds, AreThePublishedClopperPearsonOnes) {
  struct {
    Share share;
    double lower, upper;
  } const rows[] = {{{682, 925}, 0.7076683, 0.7654066},
                    {{8, 10}, 0.4439045, 0.9747893},
                    {{0, 10}, 0, 0.3084971},
                    {{10, 10}, 0.6915029, 1},
                    {{0, 0}, 0, 1}};
  for (const auto& row : rows) {
    EXPECT_NEAR(lower_bound(row.share, 0.975), row.lower, 5e-8) << row.share.hits << " of " << row.share.trials;
    EXPECT_NEAR(upper_bound(row.share, 0.975), row.upper, 5e-8) << row.share.hits << " of " << row.share.trials;
  }
}

TEST(Bounds, AreRoundedAwayFromWhatIsClaimed) {
  const std::tuple<double, const char*, const char*> rows[] = {
      {0, "0 %", "0 %"}, {0.29, "29 %", "29 %"}, {0.291, "29 %", "30 %"}, {1, "100 %", "100 %"}};
  for (const auto& [share, least, most] : rows) {
    EXPECT_EQ(percent(share), least);
    EXPECT_EQ(percent_at_most(share), most);
  }
}

TEST(Bounds, LeaveTheChanceThatTheConfidenceAllows) {
  for (const Share share : {Share{1, 1}, Share{3, 7}, Share{14, 14}, Share{28, 30}, Share{950, 1000}}) {
    for (const double confidence : {0.8, 0.95, 0.999}) {
      EXPECT_NEAR(tail(share.hits, share.trials, lower_bound(share, confidence)), 1 - confidence, 1e-9);
      if (share.hits == share.trials) continue;
      EXPECT_NEAR(tail(share.hits + 1, share.trials, upper_bound(share, confidence)), confidence, 1e-9);
    }
  }
}

TEST(Agreement, TakesFourteenOrTwentyTwoOrThirtyEvents) {
  const Criteria criteria;
  for (const Share least : {Share{14, 14}, Share{21, 22}, Share{28, 30}}) {
    EXPECT_TRUE(agreement_suffices(least, criteria)) << least.trials;
    EXPECT_FALSE(agreement_suffices({least.hits - 1, least.trials - 1}, criteria)) << least.trials;
    EXPECT_EQ(agreeing_events_needed({least.hits - 5, least.trials - 5}, criteria), 5);
  }
  Criteria lax;
  lax.agreement = 0.5;
  EXPECT_FALSE(agreement_suffices({9, 9}, lax)) << "the rule wants ten events";
  EXPECT_FALSE(agreement_suffices({79, 100}, lax)) << "the rule wants 80 %";
  EXPECT_TRUE(agreement_suffices({80, 100}, lax));
}

// Against every one of the 2^14 histories.
TEST(LookingCost, IsWhatAllHistoriesAddUpTo) {
  constexpr int events = 14;
  constexpr double truth = 0.7;
  Criteria criteria;
  criteria.confidence = 0.8;
  criteria.agreement = 0.6;
  double once = 0, every_event = 0;
  for (unsigned history = 0; history < 1u << events; ++history) {
    Share share;
    double chance = 1;
    bool ever = false;
    for (int i = 0; i < events; ++i) {
      const bool agrees = (history >> i & 1) != 0;
      chance *= agrees ? truth : 1 - truth;
      share.count(agrees);
      ever = ever || agreement_suffices(share, criteria);
    }
    every_event += ever ? chance : 0;
    once += agreement_suffices(share, criteria) ? chance : 0;
  }
  const LookingCost cost = looking_cost(events, truth, criteria);
  EXPECT_NEAR(cost.once, once, 1e-12);
  EXPECT_NEAR(cost.every_event, every_event, 1e-12);
  EXPECT_GT(every_event, once);
}

TEST(LookingCost, IsKeptSmallByAHigherConfidence) {
  const Criteria criteria;
  EXPECT_GT(looking_cost(100, 0.8, criteria).every_event, 0.15);
  Criteria stricter = criteria;
  stricter.confidence = confidence_for_looking(100, criteria).value();
  EXPECT_LE(looking_cost(100, 0.8, stricter).every_event, 0.05);
  EXPECT_FALSE(confidence_for_looking(100, {.confidence = 0.9999}));
}

TEST(Decide, SaysWhatTheEvidenceAllows) {
  struct {
    const char* name;
    Evidence evidence;
    Verdict verdict;
    const char* reason;
  } const rows[] = {
      {"nothing", {}, Verdict::inconclusive, "no event to judge"},
      {"only what must be judged by eye", {.unjudged = 25}, Verdict::inconclusive, "25 proposals can be judged by eye"},
      {"two good ones",
       {.agreement = {2, 2}},
       Verdict::not_yet,
       "12 more agreeing events needed; actions agree in 100 %"},
      {"one to go", {.agreement = {13, 13}}, Verdict::not_yet, "1 more agreeing event needed"},
      {"enough", {.agreement = {14, 14}, .places = {14, 14}}, Verdict::promote, "100 %, at least 80 % (14 of 14)"},
      {"no clicks at all", {.agreement = {30, 30}}, Verdict::promote, "actions agree"},
      {"eight of ten", {.agreement = {8, 10}}, Verdict::inconclusive, "80 %, at least 49 % (8 of 10): too close"},
      {"on course with a miss", {.agreement = {9, 10}}, Verdict::not_yet, "12 more agreeing events needed"},
      {"either side", {.agreement = {14, 20}}, Verdict::inconclusive, "70 % (14 of 20), between 49 % and 87 %"},
      {"surely below",
       {.agreement = {50, 100}},
       Verdict::not_yet,
       "at most 59 %, and the bar is 80 %; more of the same"},
      {"just below", {.agreement = {383, 500}}, Verdict::not_yet, "at most 79.7 %, and the bar is 80 %"},
      {"clicks that nobody placed",
       {.agreement = {30, 30}, .unplaced_clicks = 30},
       Verdict::inconclusive,
       "no event says where the right click was"},
      {"places that are off", {.agreement = {30, 30}, .places = {10, 30}}, Verdict::not_yet, "places agree in 33 %"},
      {"places that may be off",
       {.agreement = {30, 30}, .places = {20, 30}},
       Verdict::inconclusive,
       "places agree in 66 %"},
      {"seven of ten places", {.agreement = {30, 30}, .places = {7, 10}}, Verdict::promote, "actions agree"},
      {"acts, unobserved", {.missions = {9, 10}}, Verdict::inconclusive, "it acts (9 of 10 missions succeeded)"},
      {"missions outweigh events",
       {.agreement = {30, 30}, .places = {30, 30}, .missions = {0, 5}},
       Verdict::demote,
       "0 of 5 missions succeeded (at most 46 %)"},
      {"too few missions to demote", {.agreement = {14, 14}, .missions = {0, 4}}, Verdict::promote, "actions agree"},
  };
  for (const auto& row : rows) {
    const Judgement judgement = decide(row.evidence, {});
    EXPECT_EQ(name(judgement.verdict), name(row.verdict)) << row.name << ": " << judgement.reason;
    EXPECT_THAT(judgement.reason, HasSubstr(row.reason)) << row.name;
    EXPECT_EQ(judgement.events_needed.has_value(),
              std::string_view(row.reason).find("more agreeing") != std::string::npos);
  }
}

TEST(Quantiles, AreCloseToAValueOfTheirRank) {
  Quantiles quantiles;
  for (int i = 1; i <= 100'000; ++i) quantiles.add(i % 10'000 == 0 ? 0 : i / 10.0);
  for (const double rank : {0.1, 0.5, 0.95, 1.0}) EXPECT_NEAR(*quantiles.at(rank) / (rank * 10'000), 1, 0.004) << rank;
  EXPECT_EQ(quantiles.at(0.00005), 0);
  EXPECT_FALSE(Quantiles().at(0.5));
}

TEST(Trend, IsTheSameInAnyOrder) {
  Trend forward, backward;
  for (int i = 0; i < 5000; ++i) {
    forward.add(i * 100, i % 3 == 0);
    backward.add((4999 - i) * 100, (4999 - i) % 3 == 0);
  }
  const auto a = forward.stretches(), b = backward.stretches();
  ASSERT_EQ(a.size(), b.size());
  EXPECT_LE(a.size(), 48u);
  EXPECT_GT(a.size(), 24u);
  std::int64_t events = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(std::tuple(a[i].begin, a[i].share.hits), std::tuple(b[i].begin, b[i].share.hits));
    events += a[i].share.trials;
  }
  EXPECT_EQ(events, 5000);
}

TEST(Calibration, CountsWhatWouldActAndBeWrong) {
  Calibration calibration;
  calibration.add(0.95, true, true);
  calibration.add(0.70, true, false);
  calibration.add(0.65, true, true);
  calibration.add(0.90, false, false);  // hands over: would not act
  calibration.add(1.50, true, false);   // not clamped by the library
  const auto table = [&](std::size_t i) { return std::pair(calibration.acting(i).hits, calibration.wrong(i).hits); };
  EXPECT_EQ(table(0), std::pair(4L, 2L));
  EXPECT_EQ(table(1), std::pair(3L, 2L));
  EXPECT_EQ(table(2), std::pair(2L, 1L));
  EXPECT_EQ(calibration.acting(0).trials, 5);
  EXPECT_EQ(calibration.curve()[9].right.trials, 3);
  EXPECT_EQ(calibration.curve()[7].right.trials, 1) << "0.70 belongs to the bin that begins there";
}

}  // namespace
}  // namespace report
