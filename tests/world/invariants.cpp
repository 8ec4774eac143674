#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/world/mission.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::world {
namespace {

namespace json = boost::json;
using Fate = Call::Fate;

using Records = std::vector<std::pair<json::object, std::string>>;  // parsed, and as they stand

class Check {
 public:
  Check(Mission& mission, const Records& records) : m_(mission), records_(records) {
    if (m_.error) kind_ = text::describe(m_.error).kind;
    is_cancelled_ = m_.cancelled_at && kind_ == "system_error" && !m_.threw(m_.error);
    is_cut_ = is_cancelled_ || !m_.has_ended;
    for (const Call& call : m_.calls) {
      if (call.fate == Fate::either) ++open_calls_;
      if (call.is_recorded()) ++answers_;
    }
  }

  void run() {
    if (m_.has_ended) ending();
    m_.expect(json::serialize(m_.context) == m_.context_text, "6. the caller's context was changed");
    for (const auto& [record, line] : records_) texts(line);
    if (m_.result) texts(text::to_json(json::string(m_.result->reason)));
    switch (m_.scenario.mode) {
      case Mode::act_loop: return act_loop();
      case Mode::shadow: return shadow();
      case Mode::observer: return observer();
      case Mode::wrapper: wrapper(); break;
      default: answer();
    }
    m_.expect(records_.empty(), "4. a record of a mode that writes none");
  }

 private:
  // 9, and 8 for what nothing in the mode bounds.
  void ending() {
    const bool own = m_.threw(m_.error), budget = kind_ == "BudgetExceeded" && is_budget_spent();
    const bool unusable = kind_ == "invalid_argument" && !last().answer.has_all_needs;
    const bool unreadable = kind_ == "ConversionError" && m_.scenario.with.unreadable_context;
    const Duration host = 30s, ask = 41500ms, observation = 28s + m_.patience;
    // By mode: what it may throw, and take; generous for the host's own operations.
    const std::pair<bool, Duration> rules[] = {{false, probes() * (52s + 11s + host + m_.patience)},
                                               {own, std::max(observation, m_.agent_ended - m_.started)},
                                               {false, observation},
                                               {own || budget || unusable, ask + 10 * host},
                                               {own || budget, ask + 4 * host},
                                               {budget || unreadable, ask + host}};
    const auto [is_documented, bound] = rules[static_cast<std::size_t>(m_.scenario.mode)];
    // A file operation of another mission can let an hour pass meanwhile.
    const bool is_bound = !m_.was_stalled && !m_.has_unbounded_hang;
    m_.expect(!is_bound || m_.ended <= m_.started + bound + m_.patience, "8. the mode took too long");
    m_.expect(!m_.was_stalled || m_.has_unbounded_hang, "8. a mode with a time limit hung");
    if (m_.error && !is_cancelled_) m_.expect(is_documented, "9. an error came out: ", kind_);
    if (!m_.cancelled_at) return;
    // From elsewhere it may come when all is decided.
    const bool is_foreign = m_.world.missions.size() > 1 || m_.world.spec.plan.starts_with("turn");
    const bool may_return = m_.may_still_return || (is_foreign && *m_.cancelled_at == m_.ended);
    m_.expect(is_cancelled_ || may_return, "9. a cancellation came out as something else");
    m_.expect(m_.ended <= *m_.cancelled_at + m_.patience, "9. a cancellation took time");
  }

  // The model's characters are of two bytes each.
  void texts(std::string_view line) {
    m_.expect(line.find("\\ufffd") == std::string::npos, "10. a text was cut inside a character");
  }

  // Whether there is a line for each of `expected`, but for those that a faulty file
  // may have cost; for a mission that was cut short, no line too many.
  bool is_count(int expected) const {
    const int count = static_cast<int>(records_.size());
    return count <= expected && (is_cut_ || count + m_.world.faulty_appends >= expected);
  }

  void act_loop() {
    const int cap = std::max(static_cast<int>(m_.scenario.with.max_steps), 0);
    m_.expect(m_.actions <= cap && probes() <= cap, "7. more steps than the cap");
    int finals = 0;
    std::int64_t last_step = 0;
    for (const auto& [record, line] : records_) {
      const auto step = record.at("step").to_number<std::int64_t>();
      m_.expect(finals == 0 && step >= last_step + !record.contains("final"), "2. records out of order");
      last_step = step;
      if (!record.contains("final")) continue;
      ++finals;
      m_.expect(step == probes() && record.at("steps_used") == step, "2. a final record of another step");
      const bool is_told = !m_.result || record.at("outcome") == json::string(outcome());
      m_.expect(is_told, "2. a final record with another outcome");
    }
    m_.expect(!is_cancelled_ || finals == 0, "2. a final record of a cancelled mission");
    // A hook that outlasts the limit costs its step's record.
    const bool hook_overran = m_.result && m_.result->reason.ends_with("timed out (screenshot hung?)");
    const int expected = answers_ - (hook_overran && answers_ == probes()) + !is_cancelled_;
    m_.expect(is_count(expected) || open_calls_ != 0, "2. not one record per answered step and a final one");
    m_.expect(is_cut_ || finals == 1 || m_.world.faulty_appends != 0, "2. no final record");
    if (!is_cut_ && m_.result) terminal();
  }

  std::string outcome() const {
    const ActionResult& result = *m_.result;
    if (result.model_used == "act_loop" || result.action == "escalate_to_cua") return "escalate";
    return result.action == "declare_success" ? "success" : "failure";
  }

  void terminal() {
    const ActionResult& result = *m_.result;
    const bool is_own = result.model_used == "act_loop";
    const bool is_answered = last().fate >= Fate::either;
    m_.expect(ActionVerb::is_verdict(result.action), "2. the act loop returned no verdict");
    m_.expect(is_own || (is_answered && result.latency_ms == last().latency_ms()), "2. a verdict of no call");
    const bool is_spent = !result.reason.starts_with("vision budget exhausted: ") || is_budget_spent();
    m_.expect(is_spent, "1. a budget that is not spent was called so");
    const bool is_claimed = is_answered && last().answer.verb == result.action && last().answer.confidence >= 0.6;
    m_.expect(result.action != "declare_success" || is_claimed, "7. a success that the model did not claim");
    const bool is_told = !m_.was_aborted || result.reason.starts_with("aborted by caller before step ");
    m_.expect(is_told, "2. an abort that was not reported");
  }

  void shadow() {
    const int runs = m_.visits["agent"];
    m_.expect(runs == 1 || (is_cut_ && runs == 0), "3. the agent did not run exactly once");
    m_.expect(!is_cancelled_ || records_.empty(), "3. a record of a cancelled call");
    m_.expect(is_count(1), "3. not one record");
    if (is_cut_) return;
    const json::object value = {{"text", long_text()}, {"run", 1}, {"of", "agent"}};
    m_.expect(m_.error ? m_.threw(m_.error, "agent") : m_.value == value, "3. another end than the agent's");
    m_.expect(is_cua_origin(m_.error) == (kind_ == "HostError"), "3. the mark of the agent's error");
    for (const auto& [record, line] : records_) {
      const bool is_right = record.at("cua").as_object().contains("error") == (m_.error != nullptr);
      m_.expect(is_right, "3. a record of another outcome");
      m_.expect(block_fits(record.at("vision").as_object()), "3. a record of another observation");
    }
  }

  // Whether the "vision" member tells what became of the call.
  bool block_fits(const json::object& block) const {
    const bool is_proposal = last().fate == Fate::answered && last().answer.verb != "no_tool";
    const bool has_failed = block.contains("error") || block.contains("timeout");
    if (open_calls_ != 0 || !is_proposal) return open_calls_ != 0 || has_failed;
    if (has_failed) return block.contains("timeout");  // the hook took too long
    return block.at("action") == json::string(last().answer.verb);
  }

  void observer() {
    m_.expect(!is_cancelled_ || records_.empty(), "4. a record of a cancelled call");
    m_.expect(is_count(1), "4. not one record");
    if (is_cut_) return;
    std::string keys;
    for (const auto& member : m_.value) keys += std::string(member.key()) + " ";
    m_.expect(keys == "ts run_id hotspot_id phase agent source vision dom_ground_truth ", "4. the record's keys");
    m_.expect(block_fits(m_.value.at("vision").as_object()), "4. a record of another observation");
    const bool is_line = records_.empty() || records_[0].second == text::to_json(m_.value);
    m_.expect(is_line, "4. the record is not the line in the log");
  }

  void wrapper() {
    const int steps = m_.visits["step"], agents = m_.visits["fallback"];
    const bool acted = m_.actions == 1 || (!m_.calls.empty() && m_.calls.back().answer.verb == "wait");
    m_.expect(steps <= 2 && (steps >= 1 || is_cut_), "5. the step did not run once or twice");
    m_.expect(agents <= 1, "5. the agent ran more than once");
    m_.expect(steps != 2 || acted, "5. the step ran again without an action");
    m_.expect(agents == 0 || (steps == 1 && m_.actions == 0), "5. the agent ran after an action");
    const bool hands_over = steps == 1 && m_.errors.size() == 1 && m_.visits["screenshot"] == 1;
    const bool is_unasked = hands_over && kind_ == "HostError" && m_.scenario.with.has_agent;
    m_.expect(!is_unasked, "5. the step's error although there is an agent");
    if (m_.error || !m_.has_ended || open_calls_ != 0) return;
    const bool gives_up = ActionVerb::is_verdict(verb()) || last().answer.confidence < 0.6;
    const std::size_t way = m_.calls.empty() ? 0 : verb() == "declare_success" ? 1 : gives_up ? 2 : 0;
    const bool is_right[] = {
        m_.value["of"] == "step" && m_.value["run"] == steps && steps == (m_.calls.empty() ? 1 : 2),
        m_.result && m_.result->action == "declare_success", m_.value["of"] == "fallback"};
    m_.expect(m_.value["way"] == way && is_right[way], "5. the result of another way");
  }

  void answer() {
    if (is_cut_ || !m_.result || open_calls_ != 0) return;
    const bool is_right = m_.result->action == verb() && m_.result->latency_ms == last().latency_ms();
    m_.expect(is_right, "1. the result of another call");
  }

  const Call& last() const {
    static const Call none;
    return m_.calls.empty() ? none : m_.calls.back();
  }
  // What the last call's result proposes.
  std::string_view verb() const {
    const bool is_proposal = last().fate == Fate::answered && last().answer.verb != "no_tool";
    return is_proposal ? std::string_view(last().answer.verb) : ActionVerb::declare_failure;
  }
  bool is_budget_spent() const {
    return m_.world.missions.size() > 1 || std::ssize(m_.calls) >= m_.scenario.with.budget;
  }

  int probes() const { return m_.visits["should_abort"]; }

  Mission& m_;
  const Records& records_;
  std::string kind_;                            // of the error that came out
  bool is_cancelled_ = false, is_cut_ = false;  // cut: or the event loop was gone before
  int open_calls_ = 0, answers_ = 0;
};

// What the ledger has to hold, once it is known what of it is not certain.
void check_ledger(World& world, Host& host) {
  std::int64_t surely = 0, perhaps = 0, answered = 0;
  std::vector<double> latencies;
  std::map<std::string, std::int64_t> reasons, models;
  for (auto& mission : world.missions) {
    const auto cut = mission->cancelled_at || mission->has_ended ? mission->cancelled_at : world.gone_at;
    for (Call& call : mission->calls) {
      // Cut short between an answer and its record: the hook tells.
      if (cut && call.is_recorded() && *cut == call.end && !call.was_hooked) {
        call.fate = host.has_hook && call.fate == Fate::answered ? Fate::dropped : Fate::either;
      }
      if (call.fate == Fate::either) ++perhaps;
      if (!call.is_recorded()) continue;
      ++surely;
      if (call.fate == Fate::answered) ++answered;
      latencies.push_back(call.latency_ms());
      ++models[call.model];
      if (!call.reason.empty()) ++reasons[std::string(text::first_code_points(call.reason, 80))];
    }
  }
  const VisionMetrics& ledger = host.client.metrics;
  auto recorded = ledger.latencies_ms;
  world.expect(ledger.call_count >= surely, "1. a call is missing in the ledger");
  world.expect(ledger.call_count <= surely + perhaps, "1. the ledger counts a call too many");
  world.expect(std::ssize(recorded) == ledger.call_count, "1. latencies and calls differ");
  if (perhaps != 0) return;
  std::sort(recorded.begin(), recorded.end());
  std::sort(latencies.begin(), latencies.end());
  const auto as_map = [](const Counter& counter) { return decltype(models)(counter.begin(), counter.end()); };
  const bool same_tokens = ledger.total_input_tokens == 1500 * answered && ledger.total_output_tokens == 200 * answered;
  world.expect(same_tokens, "1. the sums of tokens differ");
  world.expect(recorded == latencies, "1. the latencies differ");
  world.expect(as_map(ledger.by_model) == models, "1. the models differ");
  world.expect(as_map(ledger.failures_by_reason) == reasons, "1. the reasons differ");
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
  for (auto& mission : world.missions) {
    if (mission->has_started) Check(*mission, records[mission->id]).run();
    records.erase(mission->id);
  }
  world.expect(records.empty(), "10. a record of no mission");
}

}  // namespace vision::world
