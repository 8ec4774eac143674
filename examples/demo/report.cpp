#include "examples/demo/report.hpp"

#include "examples/demo/console.hpp"
#include "tools/html/page.hpp"
#include "tools/html/screenshot.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/wirein/internal/records.hpp"

namespace demo {
namespace {

using html::escaped;
using vision::text::fixed;

std::string paragraph(const std::string& text, bool muted = false) {
  if (text.empty()) return {};
  return std::string(muted ? "<p class=\"muted\">" : "<p>") + escaped(text) + "</p>";
}

std::string date_text(std::time_t time) {
  char text[64];
  std::tm utc{};
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", ::gmtime_r(&time, &utc))};
}

std::string overview(const MissionRun& run, const ModelChoice& model) {
  const auto& m = run.metrics;
  return std::string("<section class=\"card ") + (run.right() ? "good" : "bad") + "\"><h2>" + escaped(headline(run)) +
         "</h2>" + paragraph("Verdict: " + verdict_text(run)) + paragraph(hint(run)) +
         html::facts(
             {{"date", date_text(run.started)},
              {"duration", fixed(run.seconds, 1) + " s"},
              {"model", model.light == model.heavy ? model.light : model.light + ", heavy " + model.heavy},
              {"calls", std::to_string(m.call_count)},
              {"tokens in / out", std::to_string(m.total_input_tokens) + " / " + std::to_string(m.total_output_tokens)},
              {"p95 latency", fixed(m.p95(), 0) + " ms"},
              {"estimated cost", "$" + fixed(m.estimated_cost_usd(), 4)},
              {"run", run.id}}) +
         html::folded("Mission", run.brief) + "</section>\n";
}

html::Screenshot screenshot_of(const std::string& number, const Step& step) {
  html::Screenshot shot;
  shot.id = "shot-" + number;
  shot.png = step.screenshot;
  shot.description = "What the model saw in step " + number;
  const auto& p = step.proposal;
  if (p && p->x_ratio && p->y_ratio) {
    shot.markers.push_back({*p->x_ratio, *p->y_ratio});
    shot.description += "; it clicked " + action_target(*p) + " of width and height";
    shot.caption = "The ring marks where the model clicked.";
  }
  return shot;
}

std::string answer_text(const vision::ActionResult& proposal) {
  std::string details = "confidence " + fixed(proposal.confidence, 2) + ", " + fixed(proposal.latency_ms, 0) + " ms";
  if (!proposal.next_expected_state.empty()) details += ", expects: " + proposal.next_expected_state;
  return paragraph(proposal.reason) + paragraph(details, true);
}

std::string step_card(const std::string& number, const Step& step, const html::Screenshot& shot) {
  const auto& p = step.proposal;
  std::string out = "<section class=\"card\" id=\"step-" + number + "\"><h2>" + number + ". " +
                    (p ? escaped(p->action) + " <small>" + escaped(action_target(*p)) + "</small>" : "no answer") +
                    "</h2>";
  out += p ? answer_text(*p) : paragraph("The mission ended before the model answered.");
  out += html::figure(shot);
  if (p) out += html::folded("Record", vision::text::to_json(vision::_observe_action_record(*p)));
  return out + "</section>\n";
}

}  // namespace

std::string render_report(const MissionRun& run, const ModelChoice& model) {
  std::vector<html::Frame> frames;
  std::string cards;
  for (const auto& step : run.steps) {
    const std::string number = std::to_string(frames.size() + 1);
    const auto shot = screenshot_of(number, step);
    frames.push_back({shot, number + " " + (step.proposal ? step.proposal->action : "no answer"), "step-" + number});
    cards += step_card(number, step, shot);
  }
  return html::page("Pinwall: share a board", overview(run, model) + html::film_strip("Steps", frames) + cards);
}

}  // namespace demo
