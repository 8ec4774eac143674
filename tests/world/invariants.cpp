#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/world/caller.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::world {
namespace {

namespace json = boost::json;
using Fate = Call::Fate;

using Records = std::vector<std::pair<json::object, std::string>>;  // parsed, and the whole line

class Check {
 public:
  Check(Caller& caller, const Records& records) : c_(caller), records_(records) {
    if (c_.error) error_kind_ = text::describe(c_.error).kind;
    is_cancelled_ = c_.cancelled_at && error_kind_ == "system_error" && !c_.threw(c_.error);
    is_unfinished_ = is_cancelled_ || !c_.has_ended;
    for (const Call& call : c_.calls) {
      if (call.fate == Fate::perhaps_recorded) ++open_calls_;
      if (call.is_recorded()) ++answers_;
    }
  }

  void run() {
    if (c_.has_ended) ending();
    expect(json::serialize(c_.context) == c_.context_text, "6. the caller's context was changed");
    for (const auto& [record, line] : records_) texts(line);
    if (c_.result) texts(text::to_json(json::string(c_.result->reason)));
    const Mode& mode = c_.scenario.mode;
    if (mode == modes::act_loop) return act_loop();
    if (mode == modes::shadow) return shadow();
    if (mode == modes::observer) return observer();
    if (mode == modes::wrapper) wrapper();
    if (mode == modes::act || mode == modes::ask) act_or_ask();
    expect(records_.empty(), "4. a record of a mode that writes none");
  }

 private:
  // What may come out, and how long it may take.
  void ending() {
    const Mode& mode = c_.scenario.mode;
    const bool budget = error_kind_ == "BudgetExceeded" && is_budget_spent();
    const bool unusable = error_kind_ == "invalid_argument" && !last().answer.has_all_needs;
    const bool unreadable = error_kind_ == "ConversionError" && c_.scenario.with.unreadable_context;
    const bool is_documented =
        (mode.throws_host_errors && c_.threw(c_.error)) || (mode.throws_budget && (budget || unusable || unreadable));
    if (c_.error && !is_cancelled_) expect(is_documented, "9. an error came out: ", error_kind_);
    Duration bound = (mode.longest + c_.patience) * (mode == modes::act_loop ? probes() : 1);
    if (mode == modes::shadow) bound = std::max(bound, c_.agent_ended - c_.started);
    // A file operation of another caller can make an hour pass meanwhile.
    const bool is_bound = !c_.was_stalled && !c_.has_unbounded_hang;
    expect(!is_bound || c_.ended <= c_.started + bound + c_.patience, "8. the mode took too long");
    expect(!c_.was_stalled || c_.has_unbounded_hang, "8. a mode with a time limit hung");
    if (!c_.cancelled_at) return;
    // From elsewhere it may come when the outcome is already decided.
    const bool is_foreign = c_.world.callers.size() > 1 || c_.world.spec.plan.starts_with("turn");
    const bool may_return = c_.may_still_return || (is_foreign && *c_.cancelled_at == c_.ended);
    expect(is_cancelled_ || may_return, "9. a cancellation came out as something else");
    expect(c_.ended <= *c_.cancelled_at + c_.patience, "9. a cancellation took time");
  }

  // The model's characters have two bytes each.
  void texts(std::string_view line) {
    expect(line.find("\\ufffd") == std::string::npos, "10. a text was cut inside a character");
  }

  // Whether there are `expected` lines, less what a faulty file may have cost; for an
  // unfinished caller, whether there are no more.
  bool is_count(int expected) const {
    const int count = static_cast<int>(records_.size());
    return count <= expected && (is_unfinished_ || count + c_.world.faulty_appends >= expected);
  }

  void act_loop() {
    const int cap = std::max(static_cast<int>(c_.scenario.with.max_steps), 0);
    expect(c_.actions <= cap && probes() <= cap, "7. more steps than the cap");
    int finals = 0;
    std::int64_t last_step = 0;
    for (const auto& [record, line] : records_) {
      const auto step = record.at("step").to_number<std::int64_t>();
      expect(finals == 0 && step >= last_step + !record.contains("final"), "2. records out of order");
      last_step = step;
      if (!record.contains("final")) continue;
      ++finals;
      expect(step == probes() && record.at("steps_used") == step, "2. a final record of another step");
    }
    expect(!is_cancelled_ || finals == 0, "2. a final record of a cancelled caller");
    // A hook that outlasts the limit costs its step's record.
    const bool hook_overran = c_.result && c_.result->reason.ends_with("timed out (screenshot hung?)");
    const int expected = answers_ - (hook_overran && answers_ == probes()) + !is_cancelled_;
    expect(is_count(expected) || open_calls_ != 0, "2. not one record per answered step and a final one");
    expect(is_unfinished_ || finals == 1 || c_.world.faulty_appends != 0, "2. no final record");
    if (!is_unfinished_ && c_.result) terminal();
  }

  void terminal() {
    const ActionResult& result = *c_.result;
    const bool is_own = result.model_used == "act_loop";
    const bool is_answered = last().fate == Fate::perhaps_recorded || last().is_recorded();
    expect(ActionVerb::is_verdict(result.action), "2. the act loop returned no verdict");
    expect(is_own || (is_answered && result.latency_ms == last().latency_ms()), "2. a verdict of no call");
    const bool is_spent = !result.reason.starts_with("vision budget exhausted: ") || is_budget_spent();
    expect(is_spent, "1. a budget that is not spent was called so");
    const bool is_claimed = is_answered && last().answer.verb == result.action && last().answer.confidence >= 0.6;
    expect(result.action != "declare_success" || is_claimed, "7. a success that the model did not claim");
  }

  void shadow() {
    const int runs = c_.visits["agent"];
    expect(runs == 1 || (is_unfinished_ && runs == 0), "3. the agent did not run exactly once");
    expect(!is_cancelled_ || records_.empty(), "3. a record of a cancelled call");
    expect(is_count(1), "3. not one record");
    if (is_unfinished_) return;
    const json::object value = {{"text", long_text()}, {"run", 1}, {"of", "agent"}};
    expect(c_.error ? c_.threw(c_.error, "agent") : c_.value == value, "3. another end than the agent's");
    expect(is_cua_origin(c_.error) == (error_kind_ == "HostError"), "3. the mark of the agent's error");
    for (const auto& [record, line] : records_)
      expect(block_fits(record.at("vision").as_object()), "3. a record of another observation");
  }

  // Whether the "vision" member says what became of the call.
  bool block_fits(const json::object& block) const {
    const bool is_proposal = last().fate == Fate::answered && last().answer.verb != "no_tool";
    const bool has_failed = block.contains("error") || block.contains("timeout");
    if (open_calls_ != 0 || !is_proposal) return open_calls_ != 0 || has_failed;
    if (has_failed) return block.contains("timeout");  // the hook took too long
    return block.at("action") == json::string(last().answer.verb);
  }

  void observer() {
    expect(!is_cancelled_ || records_.empty(), "4. a record of a cancelled call");
    expect(is_count(1), "4. not one record");
    if (is_unfinished_) return;
    expect(block_fits(c_.value.at("vision").as_object()), "4. a record of another observation");
    const bool is_line = records_.empty() || records_[0].second == text::to_json(c_.value);
    expect(is_line, "4. the record is not the line in the log");
  }

  void wrapper() {
    const int steps = c_.visits["step"], agents = c_.visits["fallback"];
    const bool acted = c_.actions == 1 || (!c_.calls.empty() && c_.calls.back().answer.verb == "wait");
    expect(steps <= 2 && (steps >= 1 || is_unfinished_), "5. the step did not run once or twice");
    expect(agents <= 1, "5. the agent ran more than once");
    expect(steps != 2 || acted, "5. the step ran again without an action");
    expect(agents == 0 || (steps == 1 && c_.actions == 0), "5. the agent ran after an action");
  }

  void act_or_ask() {
    if (is_unfinished_ || !c_.result || open_calls_ != 0) return;
    const bool is_right = c_.result->action == verb() && c_.result->latency_ms == last().latency_ms();
    expect(is_right, "1. the result of another call");
  }

  const Call& last() const {
    static const Call none;
    return c_.calls.empty() ? none : c_.calls.back();
  }
  // What the last call's result proposes.
  std::string_view verb() const {
    const bool is_proposal = last().fate == Fate::answered && last().answer.verb != "no_tool";
    return is_proposal ? std::string_view(last().answer.verb) : ActionVerb::declare_failure;
  }
  bool is_budget_spent() const {
    return c_.world.callers.size() > 1 || std::ssize(c_.calls) >= c_.scenario.with.budget;
  }

  int probes() const { return c_.visits["should_abort"]; }
  void expect(bool holds, std::string_view text, std::string_view who = {}) { c_.expect(holds, text, who); }

  Caller& c_;
  const Records& records_;
  std::string error_kind_;                             // of the error that came out
  bool is_cancelled_ = false, is_unfinished_ = false;  // unfinished: or the event loop was gone first
  int open_calls_ = 0, answers_ = 0;
};

// For a call that was cut short between its answer and its record, the hook tells which.
Fate fate_of(const Call& call, const std::optional<Duration>& cut_at, bool has_hook) {
  if (!cut_at || !call.is_recorded() || *cut_at != call.end || call.was_hooked) return call.fate;
  return has_hook && call.fate == Fate::answered ? Fate::dropped : Fate::perhaps_recorded;
}

void check_ledger(World& world, Host& host) {
  VisionMetrics due;
  std::int64_t perhaps = 0;
  for (auto& caller : world.callers) {
    const auto cut_at = caller->cancelled_at || caller->has_ended ? caller->cancelled_at : world.gone_at;
    for (Call& call : caller->calls) {
      call.fate = fate_of(call, cut_at, host.has_hook);
      if (call.fate == Fate::perhaps_recorded) ++perhaps;
      if (!call.is_recorded()) continue;
      ActionResult result(call.reason.empty() ? "click" : "declare_failure", call.reason, 0, "");
      result.model_used = call.model;
      result.latency_ms = call.latency_ms();
      if (call.fate == Fate::answered) std::tie(result.input_tokens, result.output_tokens) = std::pair(1500, 200);
      due.record(result);
    }
  }
  const VisionMetrics& ledger = host.client.metrics;
  world.expect(ledger.call_count >= due.call_count, "1. a call is missing in the ledger");
  world.expect(ledger.call_count <= due.call_count + perhaps, "1. the ledger counts a call too many");
  world.expect(std::ssize(ledger.latencies_ms) == ledger.call_count, "1. latencies and calls differ");
  if (perhaps != 0) return;
  const auto sorted = [](const auto& entries) {
    std::vector copy(entries.begin(), entries.end());
    std::sort(copy.begin(), copy.end());
    return copy;
  };
  world.expect(ledger.total_input_tokens == due.total_input_tokens, "1. the sums of tokens differ");
  world.expect(ledger.total_output_tokens == due.total_output_tokens, "1. the sums of tokens differ");
  world.expect(sorted(ledger.latencies_ms) == sorted(due.latencies_ms), "1. the latencies differ");
  world.expect(sorted(ledger.by_model) == sorted(due.by_model), "1. the models differ");
  world.expect(sorted(ledger.failures_by_reason) == sorted(due.failures_by_reason), "1. the reasons differ");
}

}  // namespace

void check(World& world, Host& host, const std::vector<std::string>& lines) {
  check_ledger(world, host);
  std::map<std::string, Records> records;
  int torn = 0;
  for (const auto& line : lines) {
    if (line.empty()) continue;  // readers skip it
    boost::system::error_code error;
    const json::value parsed = json::parse(line, error);
    if (error || !parsed.is_object()) {
      ++torn;
    } else {
      records[std::string(parsed.at("hotspot_id").as_string())].emplace_back(parsed.as_object(), line);
    }
  }
  world.expect(torn <= world.cut_writes, "10. a line of the log does not parse");
  world.expect(world.descriptors.empty(), "10. a descriptor was left open");
  for (auto& caller : world.callers) {
    if (caller->has_started) Check(*caller, records[caller->id]).run();
    records.erase(caller->id);
  }
  world.expect(records.empty(), "10. a record of no caller");
}

}  // namespace vision::world
