#include "tools/report/record.hpp"

#include <algorithm>
#include <chrono>

namespace report {
namespace {

using simdjson::dom::element;
using simdjson::dom::object;

std::string_view text(element value) {
  std::string_view out;
  return value.get(out) == simdjson::SUCCESS ? out : std::string_view();
}

std::optional<double> number(element value) {
  double out = 0;
  if (value.get(out) != simdjson::SUCCESS) return std::nullopt;
  return out;
}

// Bounded, so that sums over a log and times computed from them cannot overflow.
std::int64_t count(element value) {
  return static_cast<std::int64_t>(std::clamp(number(value).value_or(0), 0.0, 1e12));
}

double milliseconds(element value) {
  return std::clamp(number(value).value_or(0), 0.0, 1e9);
}

bool is_true(element value) {
  bool out = false;
  return value.get(out) == simdjson::SUCCESS && out;
}

// False for what is neither a proposal, a failure nor a terminal.
bool read_vision(object vision, Record& record) {
  Proposal proposal;
  Failure failure;
  bool failed = false;
  for (const auto [key, value] : vision) {
    if (key == "action")
      proposal.action = text(value);
    else if (key == "reason")
      proposal.reason = failure.text = text(value);
    else if (key == "confidence")
      proposal.confidence = number(value);
    else if (key == "next_expected_state")
      proposal.next_expected_state = text(value);
    else if (key == "x_ratio")
      proposal.x_ratio = number(value);
    else if (key == "y_ratio")
      proposal.y_ratio = number(value);
    else if (key == "model")
      proposal.model = text(value);
    else if (key == "latency_ms")
      proposal.latency_ms = milliseconds(value);
    else if (key == "input_tokens")
      proposal.input_tokens = count(value);
    else if (key == "output_tokens")
      proposal.output_tokens = count(value);
    else if (key == "timeout")
      failed = failure.timed_out = is_true(value);
    else if (key == "error")
      failed = true, failure.text = text(value);
    else if (key == "terminal")
      record.terminal = text(value);
  }
  if (!proposal.action.empty())
    record.proposal = proposal;
  else if (failed)
    record.failure = failure;
  return record.proposal || record.failure || !record.terminal.empty();
}

void read_truth(object truth, Truth& out) {
  if (truth.begin() != truth.end()) out.action = "click";
  for (const auto [key, value] : truth) {
    if (key == "action")
      out.action = text(value);
    else if (key == "true_x_ratio")
      out.x_ratio = number(value);
    else if (key == "true_y_ratio")
      out.y_ratio = number(value);
    else if (key == "true_w_ratio")
      out.w_ratio = number(value);
    else if (key == "true_h_ratio")
      out.h_ratio = number(value);
    else if (key == "viewport_width")
      out.viewport_w = number(value);
    else if (key == "viewport_height")
      out.viewport_h = number(value);
    else if (key == "label")
      out.label = text(value);
  }
}

void read_agent(object agent, Agent& out) {
  for (const auto [key, value] : agent) {
    if (key == "latency_ms")
      out.latency_ms = milliseconds(value);
    else if (key == "text_head")
      out.text = text(value);
    else if (key == "error")
      out.failed = true, out.text = text(value);
  }
}

std::optional<Record::Kind> kind_of(std::optional<std::string_view> source, bool has_agent, bool is_final) {
  if (!source) return has_agent ? std::optional(Record::Kind::miss) : std::nullopt;
  if (*source == "dom_success") return Record::Kind::success;
  if (*source == "act") return is_final ? Record::Kind::act_final : Record::Kind::act_step;
  return std::nullopt;
}

// False for what is not a record.
bool read(object line, Record& record) {
  std::optional<std::string_view> source;
  bool has_agent = false, has_vision = false, has_site = false, is_final = false;
  for (const auto [key, value] : line) {
    object inner;
    if (key == "ts")
      record.ts_text = text(value);
    else if (key == "run_id" && value.is_string())
      record.run = text(value);
    else if (key == "hotspot_id")
      record.site = text(value), has_site = value.is_string();
    else if (key == "source")
      source = text(value);
    else if (key == "step")
      record.step = count(value);
    else if (key == "max_steps")
      record.max_steps = count(value);
    else if (key == "final")
      is_final = is_true(value);
    else if (key == "outcome")
      record.outcome = text(value);
    else if (value.get(inner) != simdjson::SUCCESS)
      continue;
    else if (key == "vision")
      has_vision = read_vision(inner, record);
    else if (key == "dom_ground_truth")
      read_truth(inner, record.truth);
    else if (key == "cua")
      read_agent(inner, record.agent), has_agent = true;
  }
  const auto kind = kind_of(source, has_agent, is_final);
  const auto ts = parse_timestamp(record.ts_text);
  if (!kind || !ts || !has_site || !has_vision) return false;
  record.kind = *kind;
  record.ts = *ts;
  return true;
}

}  // namespace

std::optional<std::int64_t> parse_timestamp(std::string_view text) {
  constexpr std::string_view form = "0000-00-00T00:00:00Z";
  if (text.size() != form.size()) return std::nullopt;
  for (std::size_t i = 0; i < form.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (form[i] == '0' ? !digit : text[i] != form[i]) return std::nullopt;
  }
  const auto at = [&](std::size_t from, std::size_t size) {
    int value = 0;
    for (const char c : text.substr(from, size)) value = value * 10 + (c - '0');
    return value;
  };
  using namespace std::chrono;
  const year_month_day date(year(at(0, 4)), month(static_cast<unsigned>(at(5, 2))),
                            std::chrono::day(static_cast<unsigned>(at(8, 2))));
  const int hour = at(11, 2), minute = at(14, 2), second = at(17, 2);
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  return duration_cast<seconds>(sys_days(date).time_since_epoch()).count() + hour * 3600 + minute * 60 + second;
}

const Record* RecordParser::parse(std::string_view line) {
  record_ = {};
  object found;
  const bool is_object = parser_.parse(line.data(), line.size(), false).get(found) == simdjson::SUCCESS;
  return is_object && read(found, record_) ? &record_ : nullptr;
}

}  // namespace report
