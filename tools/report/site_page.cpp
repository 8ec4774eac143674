#include "tools/report/site_page.hpp"

#include <fmt/core.h>

#include "tools/html/page.hpp"
#include "tools/report/charts.hpp"
#include "tools/report/moment_markup.hpp"
#include "tools/report/words.hpp"

namespace report {
namespace {

using html::escaped;
using Facts = std::vector<std::pair<std::string, std::string>>;

std::string median_and_p95(const Quantiles& of, const char* unit) {
  return fmt::format("{:.0f} {} / {:.0f} {}", of.at(0.5).value_or(0), unit, of.at(0.95).value_or(0), unit);
}

std::string cost(const std::optional<double>& usd, const Spend& spend) {
  const std::string tokens = grouped(spend.input_tokens) + " / " + grouped(spend.output_tokens) + " tokens";
  return usd ? dollars(*usd) + ", " + tokens : "no price, " + tokens;
}

std::string facts_of(const ModelReport& model) {
  const ModelTally& t = *model.tally;
  Facts facts = {{"first and last", timestamp(t.first) + " – " + timestamp(t.last)}};
  if (t.latency_ms.count() > 0) facts.emplace_back("latency, median / p95", median_and_p95(t.latency_ms, "ms"));
  if (t.distance_px.count() > 0) facts.emplace_back("distance, median / p95", median_and_p95(t.distance_px, "px"));
  if (t.evidence.agreement.trials > 0) {
    facts.emplace_back("judged by truth / text / eye", fmt::format("{} / {} / {}", t.by_truth, t.by_text, t.by_label));
    facts.emplace_back("would not have acted", counted(t.would_not_act, "event"));
  }
  if (t.evidence.unjudged > 0) facts.emplace_back("not judged", counted(t.evidence.unjudged, "proposal"));
  if (t.observing.calls > 0) facts.emplace_back("cost of observing", cost(model.observing_usd, t.observing));
  if (t.acting.calls > 0) facts.emplace_back("cost of acting", cost(model.acting_usd, t.acting));
  return html::facts(facts);
}

std::string evidence_row(const char* name, const Share& share, double confidence, double bar) {
  if (share.trials == 0) return {};
  return fmt::format("<tr><th scope=\"row\">{}</th><td>{} of {}</td><td>{}, at least {}</td><td>{}</td></tr>\n", name,
                     grouped(share.hits), grouped(share.trials), percent(share.value().value_or(0)),
                     percent(lower_bound(share, confidence)), interval_scale(share, confidence, bar));
}

std::string evidence_of(const ModelTally& t, const Criteria& criteria) {
  const std::string rows =
      evidence_row("same action", t.evidence.agreement, criteria.confidence, criteria.agreement) +
      evidence_row(t.boxed > 0 ? "right place (in the element's box, where it is known)" : "right place (within 0.10)",
                   t.evidence.places, criteria.confidence, Criteria::least_near) +
      evidence_row("missions that succeeded", t.evidence.missions, criteria.confidence, criteria.mission_success);
  if (rows.empty()) return {};
  const std::string head =
      "<table><caption>Evidence</caption><thead><tr><th scope=\"col\">what</th><th scope=\"col\">count</th>"
      "<th scope=\"col\">share</th><th scope=\"col\">what it can be, and the bar</th></tr></thead><tbody>\n";
  return scrolling("Evidence", head + rows + "</tbody></table>\n");
}

std::string endings_of(const ModelTally& t) {
  if (t.missions_ended == 0) return {};
  std::string rows;
  for (const auto& [ending, count] : t.endings) {
    rows += "<tr><th scope=\"row\">" + escaped(ending) + "</th><td>" + grouped(count) + "</td></tr>\n";
  }
  return fmt::format(
      "<h4>Missions</h4>\n<p>{} ended, after {:.1f} steps on average.</p>\n<table class=\"narrow\"><thead><tr>"
      "<th scope=\"col\">how it ended</th><th scope=\"col\">missions</th></tr></thead><tbody>\n{}</tbody></table>\n",
      grouped(t.missions_ended), static_cast<double>(t.mission_steps) / static_cast<double>(t.missions_ended), rows);
}

std::string calibration_of(const Calibration& c, double confidence) {
  if (c.events() == 0) return {};
  std::string rows;
  for (std::size_t i = 0; i < Calibration::thresholds.size(); ++i) {
    const Share acting = c.acting(i), wrong = c.wrong(i);
    rows += fmt::format("<tr><th scope=\"row\">{:.1f}</th><td>{}</td><td>{}</td></tr>\n", Calibration::thresholds[i],
                        percent(acting.value().value_or(0)),
                        wrong.trials == 0 ? std::string("–")
                                          : percent_at_most(*wrong.value()) + ", at most " +
                                                percent_at_most(upper_bound(wrong, confidence)));
  }
  std::string out = "<h4>Can its confidence be believed?</h4>\n";
  if (c.events() < Calibration::enough) {
    out += "<p class=\"warning\">Only " + counted(c.events(), "event") + ": below " +
           std::to_string(Calibration::enough) + " the curve says little.</p>\n";
  }
  return out + "<div class=\"beside\"><div>" + reliability_curve(c, confidence) +
         "</div><div><table class=\"narrow\"><thead><tr><th scope=\"col\">at confidence</th><th scope=\"col\">it would "
         "act "
         "in</th><th scope=\"col\">and be wrong in</th></tr></thead><tbody>\n" +
         rows +
         "</tbody></table><p class=\"muted\">On the diagonal, the confidence is right; below it, the model believes "
         "too much of itself. The library acts from 0.6.</p></div></div>\n";
}

std::string worst_of(const std::vector<Moment>& worst, const std::string& id, PictureReader& pictures) {
  if (worst.empty()) return {};
  std::string out = "<h4>Disagreements, the worst first</h4>\n";
  for (std::size_t i = 0; i < worst.size(); ++i) {
    out += disagreement(worst[i], id + "-w" + std::to_string(i + 1), pictures);
  }
  return out;
}

std::string questions_of(const ModelTally& t, const std::string& id, PictureReader& pictures) {
  const auto& sample = t.to_judge.kept();
  if (sample.empty()) return {};
  std::string out = fmt::format(
      "<h4>To judge by eye</h4>\n<p>{} of {}, drawn at random. Nothing in the log says what was right: compare the "
      "proposal with the picture and with what the agent said.</p>\n<noscript><p class=\"warning\">Judging here needs "
      "scripts. Without them, write a labels file by hand and give it with --labels.</p></noscript>\n",
      grouped(static_cast<std::int64_t>(sample.size())), counted(t.evidence.unjudged, "proposal"));
  for (std::size_t i = 0; i < sample.size(); ++i)
    out += question(sample[i], id + "-q" + std::to_string(i + 1), pictures);
  return out;
}

std::string films_of(const ModelTally& t, const std::string& id, PictureReader& pictures) {
  std::string out;
  const auto missions = t.missions.sorted();
  for (std::size_t i = 0; i < missions.size(); ++i)
    out += film(missions[i], id + "-f" + std::to_string(i + 1), pictures);
  return out;
}

std::string paragraph(const Judgement& judgement) {
  return "<p>" + escaped(judgement.reason) + ".</p>\n";
}

std::string model_section(const ModelReport& model, bool alone, const std::string& id, const Report& report,
                          PictureReader& pictures) {
  const ModelTally& t = *model.tally;
  return "<section class=\"model\"><h3>" + escaped(model.name) + " " + pill(model.judgement.verdict) + "</h3>\n" +
         (alone ? "" : paragraph(model.judgement)) + evidence_of(t, report.criteria) + facts_of(model) +
         calibration_of(t.calibration, report.criteria.confidence) + worst_of(t.worst.sorted(), id, pictures) +
         questions_of(t, id, pictures) + endings_of(t) + films_of(t, id, pictures) + "</section>\n";
}

}  // namespace

std::string scrolling(std::string_view name, const std::string& table) {
  return "<div class=\"wide\" tabindex=\"0\" role=\"region\" aria-label=\"" + escaped(name) + "\">" + table +
         "</div>\n";
}

std::string pill(Verdict verdict) {
  const char* kind = verdict == Verdict::promote ? "good" : verdict == Verdict::demote ? "bad" : "open";
  return std::string("<span class=\"pill ") + kind + "\">" + std::string(name(verdict)) + "</span>";
}

std::string site_section(const SiteReport& site, const std::string& id, const Report& report, PictureReader& pictures) {
  const char* kind = site.judgement.verdict == Verdict::promote  ? " good"
                     : site.judgement.verdict == Verdict::demote ? " bad"
                                                                 : "";
  std::string out = std::string("<section class=\"card site") + kind + "\" id=\"" + id + "\"><h2>" +
                    escaped(site.name) + " " + pill(site.judgement.verdict) + "</h2>\n" + paragraph(site.judgement);
  if (site.tally != nullptr && !site.tally->failures.by_kind().empty()) {
    Facts facts;
    for (const auto& [failure, count] : site.tally->failures.by_kind()) facts.emplace_back(failure, grouped(count));
    out += "<h3>Failed calls</h3>\n" + html::facts(facts);
  }
  for (std::size_t i = 0; i < site.models.size(); ++i) {
    out += model_section(site.models[i], site.models.size() == 1, id + "-m" + std::to_string(i + 1), report, pictures);
  }
  return out + "</section>\n";
}

}  // namespace report
