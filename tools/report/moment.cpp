#include "tools/report/moment.hpp"

#include <tuple>

#include "vision/text/internal/utf8.hpp"

namespace report {
namespace {

std::string kept(std::string_view text) {
  return std::string(vision::text::first_code_points(text, 400));
}

}  // namespace

Moment::Moment(const Record& record, const Proposal& proposal)
    : ts(record.ts),
      site(record.site),
      model(proposal.model),
      run(record.run),
      action(kept(proposal.action)),
      reason(kept(proposal.reason)),
      next_expected_state(kept(proposal.next_expected_state)),
      confidence(proposal.confidence),
      x_ratio(proposal.x_ratio),
      y_ratio(proposal.y_ratio),
      latency_ms(proposal.latency_ms),
      step(record.step),
      max_steps(record.max_steps),
      true_action(record.truth.action),
      label(kept(record.truth.label)),
      true_x(record.truth.x_ratio),
      true_y(record.truth.y_ratio),
      true_w(record.truth.w_ratio),
      true_h(record.truth.h_ratio) {
  if (record.kind != Record::Kind::miss) return;
  agent_text = kept(record.agent.text);
  agent_latency_ms = record.agent.latency_ms;
  agent_failed = record.agent.failed;
}

bool Moment::operator<(const Moment& other) const {
  const auto rank = [](const Moment& m) {
    return std::tuple(m.confidence.value_or(0), m.comparison.distance_px.value_or(0), m.ts);
  };
  return rank(*this) < rank(other);
}

bool Mission::operator<(const Mission& other) const {
  return std::tuple(!succeeded, begin) < std::tuple(!other.succeeded, other.begin);
}

}  // namespace report
