#include "examples/demo/console.hpp"

#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace demo {
namespace {

using vision::text::fixed;
using vision::text::one_line;

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

struct Hint {
  const char* sign;
  const char* advice;
};

// Looked for in the reason, in this order.
constexpr Hint hints[] = {
    {"AuthenticationError", "The endpoint refused the API key: check ANTHROPIC_API_KEY."},
    {"PermissionDeniedError", "The API key may not use this model."},
    {"NotFoundError", "The endpoint does not know this model or path: check --light, --heavy and ANTHROPIC_BASE_URL."},
    {"BadRequestError",
     "The endpoint refused the request. Name models that accept a forced tool choice with thinking switched off."},
    {"RateLimitError", "The endpoint asks to slow down: try again later."},
    {"APIConnectionError", "The endpoint cannot be reached: check the network and ANTHROPIC_BASE_URL."},
    {"PageClosedError", "The browser ended in the middle of the mission."},
    {"PageCrashedError", "The page crashed in the middle of the mission."},
    {"vision timeout", "The model took too long: KX_VISION_TIMEOUT_S gives it more time."},
    {"step cap", "--max-steps gives the mission more steps."},
};

std::string advice_for(const std::string& reason) {
  for (const auto& hint : hints) {
    if (reason.find(hint.sign) != std::string::npos) return std::string(" ") + hint.advice;
  }
  return {};
}

std::string sentence(std::string text) {
  if (text.empty() || text.back() != '.') text += '.';
  return text;
}

}  // namespace

std::string action_target(const vision::ActionResult& p) {
  if (p.x_ratio && p.y_ratio) return "at (" + fixed(*p.x_ratio, 2) + "," + fixed(*p.y_ratio, 2) + ")";
  if (p.text) return "\"" + *p.text + "\"";
  if (p.key) return *p.key;
  if (p.scroll_dy_ratio) return "by " + fixed(*p.scroll_dy_ratio, 2);
  if (p.duration_ms) return std::to_string(*p.duration_ms) + " ms";
  return {};
}

std::string step_line(std::size_t number, const vision::ActionResult& proposal) {
  const std::string count = std::to_string(number);
  return std::string(count.size() < 2 ? " " : "") + count + "  " + padded(one_line(proposal.action), 15) + " " +
         padded(one_line(action_target(proposal)), 18) + " confidence " + fixed(proposal.confidence, 2) + "  " +
         padded(fixed(proposal.latency_ms, 0) + " ms", 8) + "  " + one_line(proposal.reason);
}

std::string summary_text(const MissionEnd& end, const ModelChoice& model) {
  const auto& m = end.metrics;
  return "verdict         " + one_line(end.verdict.action) + ": " + one_line(end.verdict.reason) + "\n" +
         "application     " + (end.expected.empty() ? "gave out no link" : "gave out " + end.expected) + "\n" +
         "calls           " + std::to_string(m.call_count) + "\n" + "tokens          " +
         std::to_string(m.total_input_tokens) + " in, " + std::to_string(m.total_output_tokens) + " out\n" +
         "p95 latency     " + fixed(m.p95(), 0) + " ms\n" + "estimated cost  $" + fixed(m.estimated_cost_usd(), 4) +
         (model.local ? " at the hosted price; the local model costs nothing" : "") + "\n";
}

std::string failure_sentence(const MissionEnd& end) {
  if (end.right()) return {};
  if (end.verdict.action != vision::ActionVerb::declare_success) {
    return "The mission did not succeed: " + sentence(one_line(end.verdict.reason)) + advice_for(end.verdict.reason);
  }
  if (end.expected.empty()) return "The answer is wrong: the application has given out no link.";
  if (end.verdict.reason != end.expected) {
    return "The answer is wrong: the application says " + end.expected + ", the model reported " +
           one_line(end.verdict.reason) + ".";
  }
  return "The answer is right, but not exactly ana@example.org was invited.";
}

}  // namespace demo
