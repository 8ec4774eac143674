#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/world/mission.hpp"
#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"

namespace vision::world {
namespace {

namespace json = boost::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Fate = Call::Fate;

struct Record : json::object {
  Record(json::object parsed, const std::string& text) : json::object(std::move(parsed)), line(text) {}
  std::string line;
};
using Records = std::vector<Record>;

template <class E>
bool is_a(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const E&) {
    return true;
  } catch (...) {
    return false;
  }
}

class Check {
 public:
  Check(Mission& mission, const Records& records) : m_(mission), records_(records) {
    is_cancelled_ = m_.error && m_.cancelled_at && is_a<boost::system::system_error>(m_.error) && !m_.threw(m_.error);
    is_cut_ = is_cancelled_ || !m_.has_ended;
    for (const Call& call : m_.calls) {
      if (call.fate == Fate::either) ++open_calls_;
      if (call.is_recorded()) ++answers_;
    }
  }

  void run() {
    if (m_.has_ended) ending();
    expect(json::serialize(m_.context) == m_.context_text, "6. the caller's context was changed");
    texts();
    switch (m_.scenario.mode) {
      case Mode::act_loop: act_loop(); break;
      case Mode::shadow: shadow(); break;
      case Mode::observer: observer(); break;
      case Mode::wrapper: wrapper(); break;
      default: expect(records_.empty(), "4. a record of a mode that writes none");
    }
  }

 private:
  void expect(bool holds, std::string_view text) { m_.expect(holds, text); }

  // 9, and 8 for what nothing in the mode bounds.
  void ending() {
    if (m_.cancelled_at) {
      // From elsewhere it may come when all is decided.
      const bool is_foreign = m_.world.missions.size() > 1 || is_hit_at_turn();
      const bool may_return = m_.may_still_return || (is_foreign && *m_.cancelled_at == m_.ended);
      expect(is_cancelled_ || may_return, "9. a cancellation came out as something else");
      expect(m_.ended <= *m_.cancelled_at + m_.patience, "9. a cancellation took time");
    }
    expect(!m_.was_stalled || m_.has_unbounded_hang, "8. a mode with a time limit hung");
    expect(m_.was_stalled || m_.ended <= m_.started + bound(), "8. the mode took too long");
    if (m_.error && !is_cancelled_ && !is_documented()) {
      m_.breaches.push_back("9. an error came out: " + text::describe(m_.error).kind);
    }
  }

  bool is_documented() const {
    const bool own = m_.threw(m_.error), budget = is_a<BudgetExceeded>(m_.error);
    switch (m_.scenario.mode) {
      case Mode::act_loop:
      case Mode::observer: return false;
      case Mode::shadow: return own;
      case Mode::wrapper: return own || budget || is_a<std::invalid_argument>(m_.error);
      case Mode::act: return own || budget;
      case Mode::ask: return budget || is_a<ConversionError>(m_.error);
    }
    return false;
  }

  // What the mode may take; what no limit bounds is left out by being generous for
  // the latencies of the host's own operations.
  Duration bound() const {
    const Duration host = seconds(30), ask = milliseconds(41500), observation = seconds(28) + m_.patience;
    switch (m_.scenario.mode) {
      case Mode::act_loop: return probes() * (seconds(52) + seconds(11) + host + m_.patience);
      case Mode::shadow: return std::max(observation, m_.agent_ended - m_.started) + m_.patience;
      case Mode::observer: return observation;
      case Mode::wrapper: return ask + 10 * host + m_.patience;
      case Mode::act: return ask + 4 * host + m_.patience;
      case Mode::ask: return ask + host + m_.patience;
    }
    return {};
  }

  // 10. No text was cut inside a character: the model's are of two bytes each.
  void texts() {
    const bool is_cut = m_.result && m_.result->reason.ends_with("\xC3");
    expect(!is_cut, "10. a reason was cut inside a character");
    for (const auto& record : records_) {
      expect(record.line.find("\\ufffd") == std::string::npos, "10. a text was cut inside a character");
    }
  }

  // Whether there is a line for each of `expected`, but for those that a faulty file
  // may have cost; for a mission that was cut short, no line too many.
  bool is_count(int expected) const {
    const int count = static_cast<int>(records_.size());
    return count <= expected && (is_cut_ || count + m_.world.faulty_appends >= expected);
  }

  void act_loop() {
    int finals = 0, answered = 0;
    std::int64_t last_step = 0;
    for (const auto& record : records_) {
      const auto step = record.at("step").to_number<std::int64_t>();
      expect(finals == 0, "2. the final record is not the last");
      if (record.contains("final")) {
        ++finals;
        expect(step == probes() && record.at("steps_used") == record.at("step"), "2. a final record of another step");
        const bool is_told = !m_.result || record.at("outcome").as_string() == std::string_view(outcome());
        expect(is_told, "2. a final record with another outcome");
      } else {
        ++answered;
        expect(step > std::exchange(last_step, step), "2. records out of order");
      }
    }
    const auto cap = std::max<std::int64_t>(m_.scenario.max_steps, 0);
    expect(m_.actions <= cap && probes() <= cap, "7. more steps than the cap");
    expect(!is_cancelled_ || finals == 0, "2. a final record of a cancelled mission");
    if (is_cut_) return expect(answered <= answers_ + open_calls_, "2. more records than answered steps");
    if (m_.result) terminal();
    // A hook that outlasts the limit costs its step's record.
    const bool hook_overran = m_.result && m_.result->reason.find("timed out (screenshot hung?)") != std::string::npos;
    if (hook_overran && answers_ == probes()) --answers_;
    const bool is_whole = m_.world.faulty_appends != 0 || (finals == 1 && answered == answers_);
    expect(open_calls_ != 0 || (is_whole && is_count(answers_ + 1)),
           "2. not one record per answered step and a final one");
  }

  std::string outcome() const {
    if (m_.result->model_used == "act_loop") return "escalate";
    if (m_.result->action == "declare_success") return "success";
    return m_.result->action == "declare_failure" ? "failure" : "escalate";
  }

  void terminal() {
    const ActionResult& result = *m_.result;
    const Call* last = m_.calls.empty() ? nullptr : &m_.calls.back();
    expect(ActionVerb::is_verdict(result.action), "2. the act loop returned no verdict");
    const bool is_claimed =
        last && last->fate != Fate::dropped && last->answer.verb == "declare_success" && last->answer.confidence >= 0.6;
    expect(result.action != "declare_success" || is_claimed,
           "7. a success that the model did not claim, or only guessed");
    if (result.model_used != "act_loop") {
      const bool is_of_call = last && last->fate != Fate::dropped && result.latency_ms == last->latency_ms();
      return expect(is_of_call, "2. a verdict of no call");
    }
    const std::string step = std::to_string(probes());
    const std::string aborted = "aborted by caller before step " + step;
    expect(!m_.was_aborted || result.reason == aborted, "2. an abort that was not reported");
    const std::string rails[] = {aborted,
                                 "act step " + step + " timed out (screenshot hung?)",
                                 "act step " + step + " error: ",
                                 "execute_action(",
                                 "vision budget exhausted: Vision call budget ",
                                 "low-confidence ",
                                 "read-only hotspot ",
                                 "repeated identical ",
                                 "step cap ("};
    const auto is_why = [&](const std::string& rail) { return result.reason.starts_with(rail); };
    expect(std::any_of(std::begin(rails), std::end(rails), is_why), "2. a reason of no rail");
  }

  void shadow() {
    expect(runs("agent") == 1 || (is_cut_ && runs("agent") == 0), "3. the agent did not run exactly once");
    expect(!is_cancelled_ || records_.empty(), "3. a record of a cancelled call");
    expect(is_count(1), "3. not one record");
    if (is_cut_) return;
    if (m_.error) {
      expect(m_.threw(m_.error), "3. another error than the agent's");
      expect(is_cua_origin(m_.error) == is_a<HostError>(m_.error), "3. the mark of the agent's error");
    } else {
      expect(m_.value == json::object({{"text", long_text()}, {"run", 1}, {"of", "agent"}}),
             "3. another value than the agent's");
    }
    for (const auto& record : records_) {
      expect(record.at("cua").as_object().contains("error") == (m_.error != nullptr), "3. a record of another outcome");
      expect(block_fits(record.at("vision").as_object()), "3. a record of another observation");
    }
  }

  // Whether the "vision" member tells what became of the call.
  bool block_fits(const json::object& block) const {
    if (open_calls_ != 0) return true;
    if (m_.calls.empty() || !m_.calls.back().is_recorded()) return block.contains("error") || block.contains("timeout");
    const Call& call = m_.calls.back();
    if (block.contains("timeout") && !block.contains("reason")) return true;  // the hook took too long
    if (call.fate == Fate::timed_out) return block.contains("timeout");
    if (call.fate == Fate::failed || call.answer.verb == "no_tool") return block.contains("error");
    return block.contains("action") && block.at("action").as_string() == std::string_view(call.answer.verb);
  }

  void observer() {
    expect(!is_cancelled_ || records_.empty(), "4. a record of a cancelled call");
    expect(is_count(1), "4. not one record");
    if (!m_.value) return;
    std::string keys;
    for (const auto& member : *m_.value) keys += std::string(member.key()) + " ";
    expect(keys == "ts run_id hotspot_id phase agent source vision dom_ground_truth ", "4. the record's keys");
    expect(block_fits(m_.value->at("vision").as_object()), "4. a record of another observation");
    for (const auto& record : records_) {
      expect(record.line == text::to_json(*m_.value), "4. the record is not the line in the log");
    }
  }

  void wrapper() {
    const int steps = runs("step"), agents = runs("fallback");
    expect(records_.empty(), "5. a record of a mode that writes none");
    expect(steps <= 2 && (steps >= 1 || is_cut_), "5. the step did not run once or twice");
    expect(agents <= 1, "5. the agent ran more than once");
    const bool acted = m_.actions == 1 || (!m_.calls.empty() && m_.calls.back().answer.verb == "wait");
    expect(steps != 2 || acted, "5. the step ran again without an action");
    expect(agents == 0 || (steps == 1 && m_.actions == 0), "5. the agent ran after an action");
    expect(steps != 1 || m_.way != 0 || m_.calls.empty(), "5. a call for a step that succeeded");
    const bool is_first_error = steps == 1 && m_.error && is_a<HostError>(m_.error) && m_.errors.size() == 1;
    expect(!is_first_error || runs("screenshot") != 1 || (!m_.scenario.has_agent && m_.threw(m_.error)),
           "5. the step's error although there is an agent");
    if (m_.error || !m_.has_ended) return;
    const bool is_right = m_.way == 0   ? m_.value->at("of") == "step" && m_.value->at("run") == steps
                          : m_.way == 1 ? m_.result->action == "declare_success"
                                        : m_.way == 2 && m_.value->at("of") == "fallback";
    expect(is_right, "5. the result of another way");
  }

  bool is_hit_at_turn() const {
    return !m_.world.spec.plan.empty() && m_.world.spec.plan.rbegin()->first.starts_with("turn");
  }
  int runs(std::string_view name) const { return m_.visits[name]; }
  int probes() const { return runs("should_abort"); }

  Mission& m_;
  const Records& records_;
  bool is_cancelled_ = false, is_cut_ = false;  // cut: or the event loop was gone before
  int open_calls_ = 0, answers_ = 0;
};

// A cancellation between an answer and its record, or the event loop's end: the
// hook tells.
void settle_fates(Mission& mission, bool has_hook) {
  const auto cut = mission.cancelled_at || mission.has_ended ? mission.cancelled_at : mission.world.gone_at;
  for (Call& call : mission.calls) {
    if (!cut || !call.is_recorded() || *cut != call.end || call.was_hooked) continue;
    call.fate = has_hook && call.fate == Fate::answered ? Fate::dropped : Fate::either;
  }
}

void check_ledger(World& world, Host& host) {
  std::int64_t surely = 0, perhaps = 0, tokens_in = 0, tokens_out = 0;
  std::vector<double> latencies;
  std::map<std::string, std::int64_t> reasons, models;
  for (auto& mission : world.missions) {
    settle_fates(*mission, host.has_hook);
    for (const Call& call : mission->calls) {
      if (call.fate == Fate::either) ++perhaps;
      if (!call.is_recorded()) continue;
      ++surely;
      if (call.fate == Fate::answered) {
        tokens_in += call.input_tokens;
        tokens_out += call.output_tokens;
      }
      latencies.push_back(call.latency_ms());
      ++models[call.model];
      if (!call.reason.empty()) ++reasons[head(call.reason, 80)];
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
  world.expect(ledger.total_input_tokens == tokens_in && ledger.total_output_tokens == tokens_out,
               "1. the sums of tokens differ");
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
    for (const auto& breach : mission->breaches) world.expect(false, breach + " (" + mission->id + ")");
    records.erase(mission->id);
  }
  world.expect(records.empty(), "10. a record of no mission");
}

}  // namespace vision::world
