#include <gmock/gmock.h>

#include "tests/tools/planted_log.hpp"
#include "tools/report/record.hpp"
#include "tools/report/report.hpp"

namespace report {
namespace {

// Forty sites for every agreement from 50 to 100 %, in steps of one: enough for
// the confidence to be seen, few enough for a sanitizer.
TEST(PlantedLog, IsJudgedAsItsTruthAllows) {
  constexpr int sites = 2040, events = 40;
  test::PlantedLog log(20261124);
  const TallyOptions options;
  Labels labels;
  Tally tally(options, labels, nullptr);
  RecordParser parser;
  std::string line;
  for (int i = 0; i < sites * events; ++i) {
    line = log.record(i % sites);
    line.reserve(line.size() + RecordParser::padding);
    const Record* record = parser.parse(line);
    ASSERT_NE(record, nullptr) << line;
    tally.add(*record);
  }
  tally.finish();
  const Criteria criteria;
  const Report report = make_report(tally, options, criteria, Prices::built_in());
  ASSERT_EQ(report.sites.size(), static_cast<std::size_t>(sites));

  int covered_below = 0, covered_above = 0, bad_sites = 0, bad_promoted = 0;
  for (const auto& site : report.sites) {
    const double truth = test::PlantedLog::agreement(std::stoi(site.name.substr(5)));
    const Evidence& evidence = site.models.at(0).tally->evidence;
    ASSERT_EQ(evidence.agreement.trials, events);
    covered_below += lower_bound(evidence.agreement, criteria.confidence) <= truth ? 1 : 0;
    covered_above += upper_bound(evidence.agreement, criteria.confidence) >= truth ? 1 : 0;
    const bool promoted = site.judgement.verdict == Verdict::promote;
    if (truth <= criteria.agreement) {
      bad_sites += 1;
      bad_promoted += promoted ? 1 : 0;
    }
    EXPECT_TRUE(promoted || truth < 1) << site.name << ": " << site.judgement.reason;
    EXPECT_FALSE(promoted && truth < 0.6) << site.name << ": " << site.judgement.reason;
  }
  EXPECT_GE(covered_below, 0.95 * sites);
  EXPECT_GE(covered_above, 0.95 * sites);
  EXPECT_LE(bad_promoted, 0.05 * bad_sites);
  EXPECT_GT(bad_sites, sites / 2);

  const ModelTally& any = *report.sites.front().models.at(0).tally;
  EXPECT_NEAR(*any.distance_px.at(0.5), 0.01 * 1280, 5);
  EXPECT_EQ(any.evidence.places.hits, any.evidence.places.trials);
  EXPECT_NEAR(report.usd, sites * events * (1500 * 1.0 + 200 * 5.0) / 1e6, 1e-6);
}

}  // namespace
}  // namespace report
