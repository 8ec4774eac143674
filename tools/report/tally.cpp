#include "tools/report/tally.hpp"

#include <algorithm>

#include "vision/text/internal/utf8.hpp"

namespace report {
namespace {

constexpr std::size_t most_open_missions = 10'000, most_steps_kept = 64;

// What was right according to the record itself, and whether its agent said so.
std::optional<Comparison> compare_within(Record& record, const Proposal& proposal, const Viewport& viewport) {
  if (record.kind == Record::Kind::miss && !record.agent.failed) {
    record.truth = first_action(record.agent.text).value_or(Truth());
  }
  return compare(proposal, record.truth, viewport);
}

}  // namespace

Tally::Tally(const TallyOptions& options, Labels& labels, Fixtures* fixtures)
    : options_(options), labels_(labels), fixtures_(fixtures) {}

bool Tally::is_filtered_out(const Record& record) const {
  if (options_.since && record.ts < *options_.since) return true;
  if (!options_.sites.empty() && !options_.sites.contains(record.site)) return true;
  return !options_.models.empty() && record.proposal && record.kind != Record::Kind::act_final &&
         !options_.models.contains(record.proposal->model);
}

void Tally::add(const Record& record) {
  if (is_filtered_out(record)) return;
  auto found = sites_.find(record.site);
  if (found == sites_.end()) found = sites_.emplace(record.site, SiteTally()).first;
  SiteTally& site = found->second;
  site.records += 1;
  counted_ += 1;
  switch (record.kind) {
    case Record::Kind::act_step: return add_step(site, record);
    case Record::Kind::act_final: return add_end(site, record);
    case Record::Kind::miss:
    case Record::Kind::success: return add_observation(site, record);
  }
}

ModelTally& Tally::model_of(SiteTally& site, std::string_view model, std::int64_t ts) {
  const auto [entry, is_new] = site.models.try_emplace(std::string(model), options_);
  ModelTally& tally = entry->second;
  tally.first = is_new ? ts : std::min(tally.first, ts);
  tally.last = is_new ? ts : std::max(tally.last, ts);
  return tally;
}

void Tally::add_observation(SiteTally& site, const Record& record) {
  if (record.failure) site.failures.add(record.ts, failure_kind(*record.failure));
  if (!record.proposal) return;
  const Proposal& proposal = *record.proposal;
  ModelTally& model = model_of(site, proposal.model, record.ts);
  model.observing.add(proposal.input_tokens, proposal.output_tokens);
  model.latency_ms.add(proposal.latency_ms);

  Record judged = record;
  const auto comparison = compare_within(judged, proposal, options_.viewport);
  Labels::Label* label = labels_.find(record.run, record.site, record.ts_text);
  Moment moment(judged, proposal);
  if (fixtures_ != nullptr) fixtures_->claim(moment);
  if (label != nullptr) {
    if (label->uses == 1) labelled_.push_back({label, &model, std::move(moment), would_act(proposal)});
  } else if (comparison) {
    (record.kind == Record::Kind::miss ? model.by_text : model.by_truth) += 1;
    count_event(model, std::move(moment), *comparison, would_act(proposal));
  } else {
    model.evidence.unjudged += 1;
    model.to_judge.add(std::move(moment));
  }
}

void Tally::count_event(ModelTally& model, Moment moment, const Comparison& comparison, bool acts) {
  Evidence& evidence = model.evidence;
  evidence.agreement.count(comparison.same_action);
  if (comparison.same_place) evidence.places.count(*comparison.same_place);
  evidence.unplaced_clicks += comparison.unplaced_click ? 1 : 0;
  model.boxed += comparison.in_box ? 1 : 0;
  model.would_not_act += acts ? 0 : 1;
  if (comparison.distance_px) model.distance_px.add(*comparison.distance_px);
  if (moment.confidence) model.calibration.add(*moment.confidence, acts, comparison.right());
  model.trend.add(moment.ts, comparison.same_action);
  if (comparison.right()) return;
  moment.comparison = comparison;
  model.worst.add(std::move(moment));
}

// The mission that a record belongs to. Missions that run at the same time at one
// site in one run cannot be told apart; a step number that does not grow begins a new one.
Tally::Open& Tally::open_mission(const Record& record) {
  std::string key = std::string(record.site) + '\0' + std::string(record.run.value_or(""));
  auto found = open_by_key_.find(key);
  const bool is_new = record.kind == Record::Kind::act_step && found != open_by_key_.end() &&
                      !found->second->mission.steps.empty() && record.step <= found->second->mission.steps.back().step;
  if (is_new) {
    unfinished_ += 1;
    open_.erase(found->second);
    open_by_key_.erase(found);
  }
  if (is_new || found == open_by_key_.end()) {
    Open open;
    open.key = key;
    open.mission.begin = record.ts;
    if (record.run) open.mission.run = std::string(*record.run);
    open_.push_back(std::move(open));
    open_by_key_[key] = std::prev(open_.end());
    if (open_.size() > most_open_missions) {
      unfinished_ += 1;
      open_by_key_.erase(open_.front().key);
      open_.pop_front();
    }
    return open_.back();
  }
  open_.splice(open_.end(), open_, found->second);
  return open_.back();
}

void Tally::add_step(SiteTally& site, const Record& record) {
  if (!record.proposal) return;
  const Proposal& proposal = *record.proposal;
  ModelTally& model = model_of(site, proposal.model, record.ts);
  model.acting.add(proposal.input_tokens, proposal.output_tokens);
  const auto failure = failed_call(proposal);
  if (failure)
    site.failures.add(record.ts, failure_kind(*failure));
  else
    model.latency_ms.add(proposal.latency_ms);

  Open& open = open_mission(record);
  open.last_call_failed = failure.has_value();
  Moment step(record, proposal);
  if (fixtures_ != nullptr) fixtures_->claim(step);
  if (open.mission.steps.size() == most_steps_kept) open.mission.steps.pop_back();
  open.mission.steps.push_back(std::move(step));
}

void Tally::add_end(SiteTally& site, const Record& record) {
  Open& open = open_mission(record);
  Mission mission = std::move(open.mission);
  const Ending& ending = mission_ending(record, open.last_call_failed);
  open_by_key_.erase(open.key);
  open_.pop_back();

  if (mission.steps.empty()) {
    if (options_.models.empty()) site.unasked_missions[std::string(ending.name)] += 1;
    return;
  }
  ModelTally& model = model_of(site, std::string(mission.steps.back().model), record.ts);
  model.endings[std::string(ending.name)] += 1;
  model.missions_ended += 1;
  model.mission_steps += record.step;
  if (ending.counts != Ending::Counts::neither) {
    model.evidence.missions.count(ending.counts == Ending::Counts::for_site);
  }
  mission.end = record.ts;
  mission.ending = ending.name;
  mission.succeeded = ending.counts == Ending::Counts::for_site;
  mission.steps_used = record.step;
  mission.last_words = record.proposal ? std::string(vision::text::first_code_points(record.proposal->reason, 400))
                                       : mission.steps.back().reason;
  model.missions.add(std::move(mission));
}

void Tally::finish() {
  for (auto& entry : labelled_) {
    ModelTally& model = *entry.model;
    if (entry.label->decision == Labels::Decision::skip || entry.label->uses > 1) {
      model.skipped += entry.label->uses;
      continue;
    }
    const bool agrees = entry.label->decision == Labels::Decision::agree;
    Proposal placed;
    placed.x_ratio = entry.moment.x_ratio;
    placed.y_ratio = entry.moment.y_ratio;
    model.by_label += 1;
    entry.moment.by_eye = true;
    count_event(model, std::move(entry.moment), judged_by_eye(placed, agrees), entry.acts);
  }
  labelled_.clear();
  unfinished_ += static_cast<std::int64_t>(open_.size());
}

}  // namespace report
