#include "tests/world/invariants.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "vision/text/json_text.hpp"

namespace vision::world {
namespace {

namespace json = boost::json;
using Fate = Call::Fate;
using Records = std::vector<json::object>;

std::string describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return std::string(typeid(e).name()) + ": " + head(e.what(), 80);
  } catch (...) {
    return "what is no std::exception";
  }
}

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

bool is_cancellation(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const boost::system::system_error& e) {
    return e.code() == asio::error::operation_aborted;
  } catch (...) {
    return false;
  }
}

class Check {
 public:
  Check(World& world, Mission& mission, Records records)
      : world_(world), m_(mission), records_(std::move(records)) {
    is_cancelled_ = m_.error && m_.cancelled_at && is_cancellation(m_.error) && !is_own_error();
  }

  void run() {
    for (const auto& breach : m_.breaches) say(breach);
    if (!m_.has_ended) return;
    ending();
    if (json::serialize(m_.context) != m_.context_text) say("6. the caller's context was changed");
    texts();
    switch (m_.scenario.mode) {
      case Mode::act_loop: act_loop(); break;
      case Mode::shadow: shadow(); break;
      case Mode::observer: observer(); break;
      case Mode::wrapper: wrapper(); break;
      case Mode::act:
      case Mode::ask: expect(records_.empty(), "4. a record of a mode that writes none");
    }
  }

 private:
  void say(const std::string& text) { world_.violate(text + " (" + m_.id + ")"); }
  void expect(bool holds, const char* text) {
    if (!holds) say(text);
  }
  bool is_own_error() const { return std::find(m_.errors.begin(), m_.errors.end(), m_.error) != m_.errors.end(); }

  // 9, and 8 for what nothing in the mode bounds.
  void ending() {
    if (m_.cancelled_at) {
      // From elsewhere it may come when all is decided.
      const bool is_foreign = world_.missions.size() > 1 || world_.conditions.cancel_turn;
      const bool may_return = m_.may_still_return || (is_foreign && *m_.cancelled_at == m_.ended);
      if (!is_cancelled_ && !may_return) {
        say("9. a cancellation came out as " + (m_.error ? describe(m_.error) : std::string("a value")));
      }
      expect(m_.ended <= *m_.cancelled_at + m_.patience, "9. a cancellation took time");
    }
    if (m_.was_stalled && !m_.has_unbounded_hang) say("8. a mode with a time limit hung");
    if (m_.error && !is_cancelled_ && !is_documented()) say("9. an error came out: " + describe(m_.error));
    if (!m_.was_stalled && m_.ended > m_.started + bound()) say("8. the mode took too long");
  }

  bool is_documented() const {
    const bool budget = is_a<BudgetExceeded>(m_.error);
    const bool unusable = is_a<std::invalid_argument>(m_.error);
    switch (m_.scenario.mode) {
      case Mode::act_loop:
      case Mode::observer: return false;
      case Mode::shadow: return is_own_error();
      case Mode::wrapper: return is_own_error() || budget || unusable;
      case Mode::act: return is_own_error() || budget;
      case Mode::ask: return budget || is_a<ConversionError>(m_.error);
    }
    return false;
  }

  // What the mode may take; what no limit bounds is left out by being generous for
  // the latencies of the host's own operations.
  Duration bound() const {
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    const Duration host = seconds(30), ask = milliseconds(41500);
    switch (m_.scenario.mode) {
      case Mode::act_loop: return m_.probes * (seconds(52) + seconds(11) + host + m_.patience);
      case Mode::shadow:
        return std::max<Duration>(seconds(28) + m_.patience,
                                  m_.agent_ended > m_.started ? m_.agent_ended - m_.started : Duration(0)) +
               m_.patience;
      case Mode::observer: return seconds(28) + m_.patience;
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
      expect(text::to_json(record).find("\\ufffd") == std::string::npos, "10. a text was cut inside a character");
    }
  }

  // Lines of this mission that a faulty file may have cost.
  bool is_count(std::size_t expected) const {
    const auto lost = static_cast<std::size_t>(world_.faulty_appends);
    return records_.size() <= expected && records_.size() + lost >= expected;
  }

  void act_loop() {
    expect(m_.actions <= m_.scenario.max_steps && m_.probes <= std::max<std::int64_t>(m_.scenario.max_steps, 0),
           "7. more steps than the cap");
    std::size_t finals = 0, answered = 0;
    std::int64_t last_step = 0;
    for (const auto& record : records_) {
      const std::int64_t step = record.at("step").to_number<std::int64_t>();
      if (record.contains("final")) {
        ++finals;
        expect(&record == &records_.back(), "2. the final record is not the last");
        expect(step == m_.probes && record.at("steps_used") == record.at("step"), "2. a final record of another step");
        if (m_.result)
          expect(record.at("outcome").as_string() == std::string_view(outcome()),
                 "2. a final record with another outcome");
      } else {
        expect(step > last_step, "2. records out of order");
        last_step = step;
        ++answered;
      }
    }
    expect(finals <= 1, "2. more than one final record");
    const std::size_t expected = answers();
    if (is_cancelled_) {
      expect(finals == 0, "2. a final record of a cancelled mission");
      expect(answered <= expected + open_calls(), "2. more records than answered steps");
      return;
    }
    if (open_calls() != 0) return;
    expect(is_count(expected + 1), "2. not one record per answered step and a final one");
    if (world_.faulty_appends == 0) {
      expect(finals == 1, "2. no final record");
      expect(answered == expected, "2. not one record per answered step");
    }
    if (m_.result) terminal();
  }

  std::string outcome() const {
    if (m_.result->model_used == "act_loop") return "escalate";
    if (m_.result->action == "declare_success") return "success";
    return m_.result->action == "declare_failure" ? "failure" : "escalate";
  }

  std::size_t open_calls() const {
    return static_cast<std::size_t>(
        std::count_if(m_.calls.begin(), m_.calls.end(), [](const Call& call) { return call.fate == Fate::either; }));
  }

  // Steps whose screenshot and ask gave a result in time.
  std::size_t answers() const {
    auto count = static_cast<std::size_t>(
        std::count_if(m_.calls.begin(), m_.calls.end(), [](const Call& call) { return call.is_recorded(); }));
    const bool hook_overran = m_.result && m_.result->reason.find("timed out (screenshot hung?)") != std::string::npos;
    if (hook_overran && count == static_cast<std::size_t>(m_.probes)) --count;
    return count;
  }

  void terminal() {
    const ActionResult& result = *m_.result;
    const Call* last = m_.calls.empty() ? nullptr : &m_.calls.back();
    expect(ActionVerb::is_verdict(result.action), "2. the act loop returned no verdict");
    if (result.action == "declare_success") {
      expect(last && last->fate == Fate::answered && last->answer.verb == "declare_success" &&
                 last->answer.confidence >= 0.6,
             "7. a success that the model did not claim, or only guessed");
    }
    if (result.model_used != "act_loop") {
      expect(last && last->is_recorded() && result.latency_ms == last->latency_ms(), "2. a verdict of no call");
    }
    if (m_.was_aborted) expect(result.reason.starts_with("aborted by caller"), "2. an abort that was not reported");
    const std::string step = std::to_string(m_.probes);
    const std::string known[] = {"aborted by caller before step " + step,
                                 "act step " + step + " timed out (screenshot hung?)",
                                 "act step " + step + " error: ",
                                 "execute_action(",
                                 "vision budget exhausted: Vision call budget ",
                                 "low-confidence ",
                                 "read-only hotspot ",
                                 "repeated identical ",
                                 "step cap ("};
    if (result.model_used == "act_loop") {
      expect(std::any_of(std::begin(known), std::end(known),
                         [&](const auto& text) { return result.reason.starts_with(text); }),
             "2. a reason of no rail");
    }
  }

  void shadow() {
    if (is_cancelled_) {
      expect(m_.agent_runs <= 1, "3. the agent ran more than once");
      expect(records_.empty(), "3. a record of a cancelled call");
      return;
    }
    expect(m_.agent_runs == 1, "3. the agent did not run exactly once");
    expect(m_.agent_started == m_.started, "3. the agent had to wait for vision");
    expect(is_count(1), "3. not one record");
    if (m_.error) {
      expect(is_own_error(), "3. another error than the agent's");
      expect(is_cua_origin(m_.error) == is_a<HostError>(m_.error), "3. the mark of the agent's error");
    } else {
      expect(m_.value && m_.value->at("of") == "agent" && m_.value->at("run") == 1 &&
                 m_.value->at("text").as_string() == std::string_view(long_reason()),
             "3. another value than the agent's");
    }
    for (const auto& record : records_) {
      expect(record.at("cua").as_object().contains("error") == (m_.error != nullptr), "3. a record of another outcome");
      expect(block_fits(record.at("vision").as_object()), "3. a record of another observation");
    }
  }

  // Whether the "vision" member tells what became of the call.
  bool block_fits(const json::object& block) const {
    if (open_calls() != 0) return true;
    if (m_.calls.empty() || !m_.calls.back().is_recorded()) return block.contains("error") || block.contains("timeout");
    const Call& call = m_.calls.back();
    if (block.contains("timeout") && !block.contains("reason")) return true;  // the hook took too long
    if (call.fate == Fate::timed_out) return block.contains("timeout");
    if (call.fate == Fate::failed || call.answer.verb == "no_tool") return block.contains("error");
    return block.contains("action") && block.at("action").as_string() == std::string_view(call.answer.verb);
  }

  void observer() {
    expect(is_cancelled_ ? records_.empty() : is_count(1), "4. not one record");
    if (!m_.value) return;
    constexpr std::string_view keys[] = {"ts",    "run_id", "hotspot_id", "phase",
                                         "agent", "source", "vision",     "dom_ground_truth"};
    expect(m_.value->size() == std::size(keys) &&
               std::equal(m_.value->begin(), m_.value->end(), std::begin(keys),
                          [](const auto& member, std::string_view key) { return member.key() == key; }),
           "4. the record's keys");
    expect(block_fits(m_.value->at("vision").as_object()), "4. a record of another observation");
    for (const auto& record : records_) {
      expect(text::to_json(record) == text::to_json(*m_.value), "4. the record is not the line in the log");
    }
  }

  void wrapper() {
    expect(records_.empty(), "5. a record of a mode that writes none");
    expect(m_.step_runs <= 2 && (m_.step_runs >= 1 || is_cancelled_), "5. the step did not run once or twice");
    expect(m_.agent_runs <= 1, "5. the agent ran more than once");
    const bool acted = m_.actions == 1 || (!m_.calls.empty() && m_.calls.back().answer.verb == "wait");
    if (m_.step_runs == 2) expect(acted, "5. the step ran again without an action");
    if (m_.agent_runs == 1) expect(m_.step_runs == 1 && m_.actions == 0, "5. the agent ran after an action");
    if (m_.step_runs == 1 && m_.way == 0) expect(m_.calls.empty(), "5. a call for a step that succeeded");
    const bool first_error = m_.step_runs == 1 && m_.error && is_a<HostError>(m_.error) && !m_.errors.empty();
    if (first_error && m_.screenshots == 1 && m_.errors.size() == 1) {
      expect(!m_.scenario.has_agent && m_.error == m_.errors.front(), "5. the step's error although there is an agent");
    }
    if (m_.error) return;
    const bool is_right = m_.way == 0   ? m_.value->at("of") == "step" && m_.value->at("run") == m_.step_runs
                          : m_.way == 1 ? m_.result->action == "declare_success"
                                        : m_.way == 2 && m_.value->at("of") == "fallback";
    expect(is_right, "5. the result of another way");
  }

  World& world_;
  Mission& m_;
  Records records_;
  bool is_cancelled_ = false;
};

// A cancellation between an answer and its record: the hook tells.
void settle_fates(Mission& mission, bool has_hook) {
  for (Call& call : mission.calls) {
    const bool cut_short = mission.cancelled_at && call.is_recorded() && *mission.cancelled_at == call.end;
    if (!cut_short || call.was_hooked) continue;
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
  const VisionMetrics& ledger = host.client->metrics;
  if (ledger.call_count < surely) world.violate("1. a call is missing in the ledger");
  if (ledger.call_count > surely + perhaps) world.violate("1. the ledger counts a call too many");
  if (static_cast<std::int64_t>(ledger.latencies_ms.size()) != ledger.call_count)
    world.violate("1. latencies and calls differ");
  if (perhaps != 0) return;
  if (ledger.total_input_tokens != tokens_in || ledger.total_output_tokens != tokens_out)
    world.violate("1. the sums of tokens differ");
  auto recorded = ledger.latencies_ms;
  std::sort(recorded.begin(), recorded.end());
  std::sort(latencies.begin(), latencies.end());
  if (recorded != latencies) world.violate("1. the latencies differ");
  const auto as_map = [](const Counter& counter) {
    return std::map<std::string, std::int64_t>(counter.begin(), counter.end());
  };
  if (as_map(ledger.by_model) != models) world.violate("1. the models differ");
  if (as_map(ledger.failures_by_reason) != reasons) world.violate("1. the reasons differ");
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
      records[std::string(parsed.at("hotspot_id").as_string())].push_back(parsed.as_object());
    }
  }
  if (torn > world.cut_writes) world.violate("10. a line of the log does not parse");
  if (!world.descriptors.empty()) world.violate("10. a descriptor was left open");
  for (auto& mission : world.missions) {
    Check(world, *mission, std::move(records[mission->id])).run();
    records.erase(mission->id);
  }
  if (!records.empty()) world.violate("10. a record of no mission");
}

}  // namespace vision::world
