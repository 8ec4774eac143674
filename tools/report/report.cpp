#include "tools/report/report.hpp"

#include <algorithm>

#include "tools/report/words.hpp"

namespace report {
namespace {

Judgement judge_site(const SiteReport& site) {
  if (site.tally == nullptr) return {Verdict::inconclusive, "no record in the logs"};
  if (site.models.empty()) {
    std::int64_t failed = 0;
    for (const auto& [kind, count] : site.tally->failures.by_kind()) failed += count;
    return {Verdict::inconclusive, "no proposal, and " + counted(failed, "failed call")};
  }
  const auto verdict = [](const ModelReport& a, const ModelReport& b) {
    return a.judgement.verdict < b.judgement.verdict;
  };
  const ModelReport& worst = *std::min_element(site.models.begin(), site.models.end(), verdict);
  Judgement out = worst.judgement;
  if (site.models.size() > 1) out.reason = worst.name + ": " + out.reason;
  return out;
}

ModelReport judge_model(const std::string& name, const ModelTally& tally, const Criteria& criteria,
                        const Prices& prices) {
  return {name, &tally, decide(tally.evidence, criteria), prices.cost(name, tally.observing),
          prices.cost(name, tally.acting)};
}

void add_cost(Report& report, const ModelReport& model) {
  report.usd += model.observing_usd.value_or(0) + model.acting_usd.value_or(0);
  auto& unpriced = report.unpriced_models;
  const bool took_tokens = model.tally->observing.input_tokens + model.tally->acting.input_tokens > 0;
  if (!model.observing_usd && took_tokens &&
      std::find(unpriced.begin(), unpriced.end(), model.name) == unpriced.end()) {
    unpriced.push_back(model.name);
  }
}

}  // namespace

bool Report::all_promoted() const {
  const auto promoted = [](const SiteReport& site) { return site.judgement.verdict == Verdict::promote; };
  return !sites.empty() && std::all_of(sites.begin(), sites.end(), promoted);
}

Report make_report(const Tally& tally, const TallyOptions& options, const Criteria& criteria, const Prices& prices) {
  Report report;
  report.criteria = criteria;
  report.options = options;
  report.counted = tally.counted();
  report.unfinished_missions = tally.unfinished_missions();
  report.prices_as_of = prices.as_of();
  report.prices_source = prices.source();
  for (const auto& [name, counts] : tally.sites()) {
    SiteReport site{name, &counts, {}, {}};
    for (const auto& [model, model_tally] : counts.models) {
      site.models.push_back(judge_model(model, model_tally, criteria, prices));
      add_cost(report, site.models.back());
    }
    site.judgement = judge_site(site);
    report.failures.add(counts.failures);
    report.sites.push_back(std::move(site));
  }
  for (const auto& name : options.sites) {
    if (tally.sites().contains(name)) continue;
    SiteReport missing{name, nullptr, {}, {}};
    missing.judgement = judge_site(missing);
    report.sites.push_back(std::move(missing));
  }
  std::sort(report.sites.begin(), report.sites.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  return report;
}

void add_looking_costs(Report& report) {
  for (const std::int64_t events : {20, 50, 100, 200}) {
    report.looking.push_back(looking_cost(events, report.criteria.agreement, report.criteria));
  }
  report.confidence_for_looking = confidence_for_looking(report.looking.back().events, report.criteria);
}

}  // namespace report
