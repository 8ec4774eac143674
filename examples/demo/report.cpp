#include "examples/demo/report.hpp"

#include "examples/demo/console.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace demo {
namespace {

using vision::text::fixed;

constexpr const char* style = R"(
body { margin: 0; font: 16px/1.5 "DejaVu Sans", system-ui, sans-serif; color: #1f2933; background: #f4f5f7 }
main { max-width: 1080px; margin: 0 auto; padding: 32px 24px 64px }
h1 { font-size: 26px; margin: 0 0 4px }
h2 { font-size: 18px; margin: 0 0 8px }
h2 span { font-weight: 400; color: #616e7c }
p { margin: 4px 0 }
.verdict { border-left: 6px solid #b42318; background: #fff; padding: 16px 20px; margin: 20px 0; border-radius: 6px }
.verdict.right { border-color: #12805c }
.answer { font-size: 20px; font-weight: 600 }
dl { display: flex; flex-wrap: wrap; gap: 8px 32px; margin: 12px 0 0 }
dt { color: #616e7c; font-size: 13px } dd { margin: 0; font-weight: 600 }
section { background: #fff; border-radius: 8px; padding: 20px; margin: 20px 0; box-shadow: 0 1px 3px #0002 }
.shot { position: relative; border: 1px solid #d5dae1; border-radius: 4px; overflow: hidden; margin-top: 12px }
.shot img { display: block; width: 100% }
.marker { position: absolute; width: 36px; height: 36px; margin: -21px 0 0 -21px; border: 3px solid #d6006c;
  border-radius: 50%; box-shadow: 0 0 0 2px #fff, inset 0 0 0 2px #fff }
.meta { color: #616e7c; font-size: 14px }
pre { background: #f4f5f7; padding: 12px; border-radius: 4px; overflow-x: auto; font-size: 13px; white-space: pre-wrap;
  overflow-wrap: anywhere }
)";

// Text from a model or a page, harmless between tags and in attributes.
std::string html(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto c = vision::text::next_code_point(text);
    text.remove_prefix(c.size);
    switch (c.value) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: vision::text::append_utf8(out, c.value < 0x20 && c.value != '\n' ? U'\uFFFD' : c.value);
    }
  }
  return out;
}

std::string fact(const char* name, const std::string& value) {
  return std::string("<div><dt>") + name + "</dt><dd>" + html(value) + "</dd></div>";
}

std::string render_verdict(const ReportSummary& s) {
  const auto& m = s.metrics;
  return std::string("<div class=\"verdict") + (s.right ? " right" : "") + "\"><p>" + html(s.verdict.action) +
         "</p><p class=\"answer\">" + html(s.verdict.reason) + "</p><p class=\"meta\">" +
         (s.right ? "The application says the same." : "The application says: " + html(s.expected)) + "</p><dl>" +
         fact("model", s.model) + fact("calls", std::to_string(m.call_count)) +
         fact("tokens in / out", std::to_string(m.total_input_tokens) + " / " + std::to_string(m.total_output_tokens)) +
         fact("p95 latency", fixed(m.p95(), 0) + " ms") +
         fact("estimated cost", "$" + fixed(m.estimated_cost_usd(), 4)) + "</dl></div>";
}

std::string render_step(std::size_t number, const ReportStep& step) {
  const auto& p = step.proposal;
  std::string out = "<section><h2>" + std::to_string(number) + ". " + html(p.action) + " <span>" +
                    html(action_target(p)) + "</span></h2><p>" + html(p.reason) + "</p><p class=\"meta\">confidence " +
                    fixed(p.confidence, 2) + " &middot; " + fixed(p.latency_ms, 0) +
                    " ms &middot; expects: " + html(p.next_expected_state) + "</p>";
  if (!step.screenshot.empty()) {
    out += "<div class=\"shot\"><img alt=\"what the model saw\" src=\"data:image/png;base64," +
           vision::_b64(step.screenshot.view()) + "\">";
    if (p.x_ratio && p.y_ratio) {
      out += "<div class=\"marker\" style=\"left:" + fixed(*p.x_ratio * 100, 3) +
             "%;top:" + fixed(*p.y_ratio * 100, 3) + "%\"></div>";
    }
    out += "</div>";
  }
  return out + "<pre>" + html(vision::text::to_json(vision::_observe_action_record(p))) + "</pre></section>\n";
}

}  // namespace

std::string render_report(const std::vector<ReportStep>& steps, const ReportSummary& summary) {
  std::string out = "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + html(summary.title) +
                    "</title><style>" + style + "</style></head><body><main>\n<h1>" + html(summary.title) + "</h1>\n" +
                    render_verdict(summary) + "\n";
  for (std::size_t i = 0; i < steps.size(); ++i) out += render_step(i + 1, steps[i]);
  return out + "</main></body></html>\n";
}

}  // namespace demo
