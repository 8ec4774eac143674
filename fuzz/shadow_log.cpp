// Whatever a log contains, a line accepted as a record is the JSON object that another
// parser reads, and the report of all lines is consistent and valid JSON.
#include "fuzz/input.hpp"
#include "tools/report/json_report.hpp"
#include "tools/report/words.hpp"

namespace vision::fuzz {
namespace {

void check_record(const report::Record& record, std::string_view line) {
  boost::json::parse_options options;
  options.max_depth = 2000;
  const auto value = boost::json::parse(line, {}, options);
  require(value.at("hotspot_id").as_string() == record.site, "the site");
  require(value.at("ts").as_string() == record.ts_text, "the time's text");
  const bool leap_second = record.ts_text.substr(17, 2) == "60";
  require(leap_second || report::timestamp(record.ts) == record.ts_text, "the time");
  require(record.proposal || record.failure || !record.terminal.empty(), "the call has an outcome");
}

void check_sums(const report::ModelTally& tally) {
  const auto& evidence = tally.evidence;
  require(evidence.agreement.trials == tally.by_truth + tally.by_text + tally.by_label,
          "every event is judged in one way");
  require(evidence.places.trials + evidence.unplaced_clicks <= evidence.agreement.hits,
          "only agreeing events have places");
  require(evidence.missions.trials <= tally.missions_ended, "missions that count are missions");
}

}  // namespace

void check(Input input) {
  const report::TallyOptions options;
  report::Labels labels;
  report::Tally tally(options, labels, nullptr);
  report::RecordParser parser;
  std::int64_t records = 0;
  while (!input.empty()) {
    std::string line(input.until('\n'));
    line.reserve(line.size() + report::RecordParser::padding);
    const report::Record* record = parser.parse(line);
    if (record == nullptr) continue;
    check_record(*record, line);
    tally.add(*record);
    records += 1;
  }
  tally.finish();
  require(tally.counted() == records, "every record counts");
  const auto report = report::make_report(tally, options, {}, report::Prices::built_in());
  for (const auto& site : report.sites) {
    for (const auto& model : site.models) check_sums(*model.tally);
  }
  boost::json::parse(report::json_report(report, nullptr));
}

}  // namespace vision::fuzz
