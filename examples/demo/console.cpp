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

// The first sign that the reason contains decides.
constexpr Hint hints[] = {
    {"AuthenticationError", "The endpoint refused the API key: check ANTHROPIC_API_KEY."},
    {"PermissionDeniedError", "The API key may not use this model."},
    {"NotFoundError", "The endpoint does not know this model or path: check --light, --heavy and ANTHROPIC_BASE_URL."},
    {"BadRequestError",
     "The endpoint refused the request. Name models that accept a forced tool choice with thinking switched off."},
    {"RateLimitError", "The endpoint limits the rate of requests: try again later."},
    {"APIConnectionError", "The endpoint cannot be reached: check the network and ANTHROPIC_BASE_URL."},
    {"PageClosedError", "The browser ended during the mission."},
    {"PageCrashedError", "The page crashed during the mission."},
    {"vision timeout", "The model took too long: raise KX_VISION_TIMEOUT_S, in seconds."},
    {"step cap", "Raise --max-steps."},
};

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
         padded(fixed(proposal.latency_ms, 0) + " ms", 8) + "  " + one_line(proposal.reason) + "\n";
}

std::string fact_line(const char* name, const std::string& value) {
  return padded(name, 15) + " " + value + "\n";
}

std::string headline(const MissionRun& run) {
  if (!run.verdict) return "The mission was interrupted.";
  if (run.verdict->action != vision::ActionVerb::declare_success) return "The mission failed.";
  if (run.expected.empty()) return "The answer is wrong: the application issued no link.";
  if (run.verdict->reason != run.expected) return "The answer is wrong: the application issued " + run.expected + ".";
  if (!run.invited_rightly) return "The answer is right, but not exactly ana@example.org was invited.";
  return "The mission succeeded: the application confirms the answer.";
}

std::string verdict_text(const MissionRun& run) {
  return run.verdict ? one_line(run.verdict->action) + ": " + one_line(run.verdict->reason) : "none";
}

std::string summary_text(const MissionRun& run, const ModelChoice& model, const Losses& losses) {
  const auto& m = run.metrics;
  const std::string tokens =
      std::to_string(m.total_input_tokens) + " in, " + std::to_string(m.total_output_tokens) + " out";
  const char* const remark = model.local ? " at the hosted price; the local model costs nothing" : "";
  std::string text = fact_line("verdict", verdict_text(run));
  text += fact_line("application", run.expected.empty() ? "issued no link" : "issued " + run.expected);
  text += fact_line("calls", std::to_string(m.call_count));
  text += fact_line("tokens", tokens);
  text += fact_line("p95 latency", fixed(m.p95(), 0) + " ms");
  text += fact_line("estimated cost", "$" + fixed(m.estimated_cost_usd(), 4) + remark);
  text += fact_line("duration", fixed(run.seconds, 1) + " s");
  if (losses.records > 0) text += fact_line("records lost", std::to_string(losses.records));
  if (losses.screenshots > 0) text += fact_line("screenshots lost", std::to_string(losses.screenshots));
  return text;
}

std::string hint(const MissionRun& run) {
  if (!run.verdict || run.verdict->action == vision::ActionVerb::declare_success) return {};
  for (const auto& hint : hints) {
    if (run.verdict->reason.find(hint.sign) != std::string::npos) return hint.advice;
  }
  return {};
}

}  // namespace demo
