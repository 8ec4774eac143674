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

std::string verdict_card(const ReportSummary& s) {
  const auto& m = s.metrics;
  return std::string("<section class=\"card ") + (s.right ? "good" : "bad") + "\"><h2>" + escaped(s.verdict.action) +
         "</h2><p>" + escaped(s.verdict.reason) + "</p><p class=\"muted\">" +
         (s.right ? "The application says the same." : "The application says: " + escaped(s.expected)) + "</p>" +
         html::facts(
             {{"model", s.model},
              {"calls", std::to_string(m.call_count)},
              {"tokens in / out", std::to_string(m.total_input_tokens) + " / " + std::to_string(m.total_output_tokens)},
              {"p95 latency", fixed(m.p95(), 0) + " ms"},
              {"estimated cost", "$" + fixed(m.estimated_cost_usd(), 4)}}) +
         "</section>\n";
}

html::Screenshot screenshot_of(std::size_t number, const ReportStep& step) {
  const auto& p = step.proposal;
  html::Screenshot shot;
  shot.id = "shot-" + std::to_string(number);
  shot.png = step.screenshot;
  shot.description = "What the model saw before step " + std::to_string(number);
  if (p.x_ratio && p.y_ratio) shot.markers.push_back({*p.x_ratio, *p.y_ratio});
  return shot;
}

std::string step_card(std::size_t number, const ReportStep& step, const html::Screenshot& shot) {
  const auto& p = step.proposal;
  return "<section class=\"card\" id=\"step-" + std::to_string(number) + "\"><h2>" + std::to_string(number) + ". " +
         escaped(p.action) + " <small>" + escaped(action_target(p)) + "</small></h2><p>" + escaped(p.reason) +
         "</p><p class=\"muted\">confidence " + fixed(p.confidence, 2) + " &middot; " + fixed(p.latency_ms, 0) +
         " ms &middot; expects: " + escaped(p.next_expected_state) + "</p>" + html::figure(shot) +
         html::folded("Record", vision::text::to_json(vision::_observe_action_record(p))) + "</section>\n";
}

}  // namespace

std::string render_report(const std::vector<ReportStep>& steps, const ReportSummary& summary) {
  std::vector<html::Frame> frames;
  std::string cards;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const auto number = i + 1;
    const auto shot = screenshot_of(number, steps[i]);
    const std::string label = std::to_string(number) + " " + steps[i].proposal.action;
    frames.push_back({shot, label, "step-" + std::to_string(number)});
    cards += step_card(number, steps[i], shot);
  }
  return html::page(summary.title, verdict_card(summary) + html::film_strip("Steps", frames) + cards);
}

}  // namespace demo
