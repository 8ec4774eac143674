#include "tools/report/json_report.hpp"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include "tools/report/words.hpp"
#include "vision/text/internal/json_text.hpp"

namespace report {
namespace {

using boost::json::array;
using boost::json::object;
using boost::json::value;

template <class T>
value or_null(const std::optional<T>& found) {
  return found ? value(*found) : value(nullptr);
}

object share(const Share& of, double confidence) {
  return {{"hits", of.hits},
          {"events", of.trials},
          {"share", or_null(of.value())},
          {"lower", lower_bound(of, confidence)},
          {"upper", upper_bound(of, confidence)}};
}

template <class Counts>
object counts(const Counts& by_name) {
  object out;
  for (const auto& [name, count] : by_name) out[name] = count;
  return out;
}

object quantiles(const Quantiles& of) {
  return {{"count", of.count()}, {"median", or_null(of.at(0.5))}, {"p95", or_null(of.at(0.95))}};
}

array trend(const Trend& of) {
  array out;
  for (const auto& [begin, events] : of.stretches()) {
    out.push_back(object{{"from", timestamp(begin)}, {"agreeing", events.hits}, {"events", events.trials}});
  }
  return out;
}

object calibration(const Calibration& of, double confidence) {
  array curve, thresholds;
  for (std::size_t i = 0; i < Calibration::bins; ++i) {
    const auto& bin = of.curve()[i];
    const auto events = static_cast<double>(bin.right.trials);
    curve.push_back(object{{"from", static_cast<double>(i) / Calibration::bins},
                           {"to", static_cast<double>(i + 1) / Calibration::bins},
                           {"events", bin.right.trials},
                           {"right", bin.right.hits},
                           {"mean_confidence", events > 0 ? value(bin.confidence_sum / events) : value(nullptr)}});
  }
  for (std::size_t i = 0; i < Calibration::thresholds.size(); ++i) {
    thresholds.push_back(object{{"confidence", Calibration::thresholds[i]},
                                {"acts", share(of.acting(i), confidence)},
                                {"wrong", share(of.wrong(i), confidence)}});
  }
  return {{"events", of.events()},
          {"enough", of.events() >= Calibration::enough},
          {"curve", std::move(curve)},
          {"thresholds", std::move(thresholds)}};
}

object spend(const Spend& of, const std::optional<double>& usd) {
  return {{"calls", of.calls},
          {"input_tokens", of.input_tokens},
          {"output_tokens", of.output_tokens},
          {"usd", or_null(usd)}};
}

value picture(const Picture& of) {
  switch (of.state) {
    case Picture::State::found: return value(of.path);
    case Picture::State::ambiguous: return object{{"ambiguous", true}};
    case Picture::State::none: break;
  }
  return nullptr;
}

object moment(const Moment& m, const Picture& shown) {
  object out = {{"ts", timestamp(m.ts)},
                {"run_id", or_null(m.run)},
                {"action", m.action},
                {"reason", m.reason},
                {"confidence", or_null(m.confidence)},
                {"x_ratio", or_null(m.x_ratio)},
                {"y_ratio", or_null(m.y_ratio)},
                {"latency_ms", m.latency_ms},
                {"picture", picture(shown)}};
  if (m.step > 0) out["step"] = m.step;
  if (m.agent_text) out[m.agent_failed ? "agent_error" : "agent_text"] = *m.agent_text;
  if (m.by_eye) out["by_eye"] = true;
  if (m.true_action.empty()) return out;
  out["truth"] = object{{"action", m.true_action},
                        {"label", m.label},
                        {"true_x_ratio", or_null(m.true_x)},
                        {"true_y_ratio", or_null(m.true_y)},
                        {"true_w_ratio", or_null(m.true_w)},
                        {"true_h_ratio", or_null(m.true_h)},
                        {"distance_px", or_null(m.comparison.distance_px)}};
  return out;
}

array moments(const std::vector<Moment>& list, const Fixtures* fixtures) {
  array out;
  for (const auto& one : list) out.push_back(moment(one, fixtures ? fixtures->find(one) : Picture()));
  return out;
}

array missions(const std::vector<Mission>& list, const Fixtures* fixtures) {
  array out;
  for (const auto& mission : list) {
    const auto pictures = fixtures ? fixtures->find(mission) : std::vector<Picture>(mission.steps.size());
    array steps;
    for (std::size_t i = 0; i < mission.steps.size(); ++i) steps.push_back(moment(mission.steps[i], pictures[i]));
    out.push_back(object{{"begin", timestamp(mission.begin)},
                         {"end", timestamp(mission.end)},
                         {"run_id", or_null(mission.run)},
                         {"ending", mission.ending},
                         {"steps_used", mission.steps_used},
                         {"last_words", mission.last_words},
                         {"steps", std::move(steps)}});
  }
  return out;
}

void add_judgement(object& out, const Judgement& judgement) {
  out["verdict"] = name(judgement.verdict);
  out["reason"] = judgement.reason;
  out["events_needed"] = or_null(judgement.events_needed);
}

object model(const ModelReport& report, double confidence, const Fixtures* fixtures) {
  const ModelTally& t = *report.tally;
  object out = {{"model", report.name}};
  add_judgement(out, report.judgement);
  out["first"] = timestamp(t.first);
  out["last"] = timestamp(t.last);
  out["agreement"] = share(t.evidence.agreement, confidence);
  out["places"] = share(t.evidence.places, confidence);
  out["boxed_places"] = t.boxed;
  out["unplaced_clicks"] = t.evidence.unplaced_clicks;
  out["judged"] = object{{"by_truth", t.by_truth}, {"by_text", t.by_text}, {"by_label", t.by_label}};
  out["unjudged"] = t.evidence.unjudged;
  out["skipped"] = t.skipped;
  out["would_not_act"] = t.would_not_act;
  out["distance_px"] = quantiles(t.distance_px);
  out["latency_ms"] = quantiles(t.latency_ms);
  out["trend"] = trend(t.trend);
  out["calibration"] = calibration(t.calibration, confidence);
  out["missions"] = object{{"ended", t.missions_ended},
                           {"steps", t.mission_steps},
                           {"success", share(t.evidence.missions, confidence)},
                           {"endings", counts(t.endings)}};
  out["observing"] = spend(t.observing, report.observing_usd);
  out["acting"] = spend(t.acting, report.acting_usd);
  out["worst"] = moments(t.worst.sorted(), fixtures);
  out["to_judge"] = moments(t.to_judge.kept(), fixtures);
  out["film_strips"] = missions(t.missions.sorted(), fixtures);
  return out;
}

object site(const SiteReport& report, double confidence, const Fixtures* fixtures) {
  object out = {{"site", report.name}};
  add_judgement(out, report.judgement);
  array models;
  for (const auto& one : report.models) models.push_back(model(one, confidence, fixtures));
  const SiteTally none;
  const SiteTally& tally = report.tally ? *report.tally : none;
  out["records"] = tally.records;
  out["failures"] = counts(tally.failures.by_kind());
  out["unasked_missions"] = counts(tally.unasked_missions);
  out["models"] = std::move(models);
  return out;
}

object criteria(const Report& report) {
  const Criteria& c = report.criteria;
  return {{"confidence", c.confidence},
          {"agreement", c.agreement},
          {"mission_success", c.mission_success},
          {"least_events", Criteria::least_events},
          {"least_agreement", Criteria::least_agreement},
          {"least_places", Criteria::least_near},
          {"viewport_width", report.options.viewport.width},
          {"viewport_height", report.options.viewport.height},
          {"since", report.options.since ? value(timestamp(*report.options.since)) : value(nullptr)}};
}

object looking(const Report& report) {
  array table;
  for (const auto& row : report.looking) {
    table.push_back(object{{"events", row.events}, {"once", row.once}, {"every_event", row.every_event}});
  }
  return {{"true_agreement", report.criteria.agreement},
          {"chance_of_promotion", std::move(table)},
          {"confidence_for_every_event", or_null(report.confidence_for_looking)}};
}

object failures(const FailureCounts& of) {
  object days;
  for (const auto& [number, kinds] : of.by_day()) days[day(number * 86400)] = counts(kinds);
  return {{"by_kind", counts(of.by_kind())}, {"by_day", std::move(days)}};
}

}  // namespace

std::string json_report(const Report& report, const Fixtures* fixtures) {
  const InputStats& input = report.input;
  const object head = {
      {"format", "vision-report 1"},
      {"created", timestamp(report.created)},
      {"all_promoted", report.all_promoted()},
      {"criteria", criteria(report)},
      {"input", object{{"files", input.files},
                       {"bytes", input.bytes},
                       {"records", input.records},
                       {"counted", report.counted},
                       {"skipped_lines", input.skipped},
                       {"unfinished_missions", report.unfinished_missions},
                       {"damaged", array(input.damaged.begin(), input.damaged.end())}}},
      {"labels",
       object{{"read", report.labels.read}, {"unused", report.labels.unused}, {"ambiguous", report.labels.ambiguous}}},
      {"cost", object{{"usd", report.usd},
                      {"prices_as_of", report.prices_as_of},
                      {"prices_source", report.prices_source},
                      {"unpriced_models", array(report.unpriced_models.begin(), report.unpriced_models.end())}}},
      {"looking", looking(report)},
      {"failures", failures(report.failures)}};
  // Site by site, because the tree of all takes several times the memory of its text.
  std::string out = vision::text::to_json(head);
  out.back() = ',';
  out += " \"sites\": [";
  for (const auto& one : report.sites) {
    if (&one != &report.sites.front()) out += ", ";
    vision::text::append_json(out, site(one, report.criteria.confidence, fixtures));
  }
  out += "]}\n";
  return out;
}

}  // namespace report
