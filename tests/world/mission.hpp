#pragma once

#include <boost/json/object.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/world/scenario.hpp"
#include "tests/world/world.hpp"
#include "vision/records/action_result.hpp"
#include "vision/wirein/cua_origin.hpp"

namespace vision::world {

/// The page driver's and the agent's own error type.
struct HostError : std::runtime_error, CuaOriginMark {
  using std::runtime_error::runtime_error;
};

/// One ask call as its model sees it: one request, or two when the first met a
/// transport error. What the ledger has to hold follows from it alone.
struct Call {
  enum class Fate { open, retrying, answered, failed, timed_out, dropped, either };

  Fate fate = Fate::open;
  std::string model;
  int requests = 0;
  Duration start{0}, request_start{0}, end{0};
  std::int64_t input_tokens = 0, output_tokens = 0;
  std::string reason;  ///< of a declare_failure result
  Answer answer;
  bool was_hooked = false;

  bool is_recorded() const { return fate == Fate::answered || fate == Fate::failed || fate == Fate::timed_out; }
  double latency_ms() const { return runtime::to_seconds(end - start) * 1000.0; }
};

/// One call of one mode, and all that the parties saw of it.
struct Mission {
  Mission(std::string name, const Scenario& what);

  // Told by the world about every visit.
  void visit_begins(World& world, const Visit& visit);
  void visit_ended(World& world, const Visit& visit);
  void hangs(std::string_view name);
  std::exception_ptr thrown(std::exception_ptr what);

  /// How long the screenshot and the ask of one step may take; absent for modes
  /// without such a limit.
  std::optional<Duration> unit_limit() const;
  bool in_unit(std::string_view name) const;
  /// What the answer allows the mission to do to the page; empty for nothing.
  void answered(const Answer& answer);

  std::string id;
  const Scenario& scenario;
  boost::json::object context;  ///< the caller's
  std::string context_text;     ///< as it was
  asio::cancellation_signal signal;

  // How it ended.
  bool has_ended = false, was_stalled = false, has_started = false;
  std::exception_ptr error;
  std::optional<ActionResult> result;
  std::optional<boost::json::object> value;  ///< a record, an agent's value or a scripted step's
  int way = -1;                              ///< of the wrapper's result
  Duration started{0}, ended{0};

  // The caller's cancellation.
  std::optional<Duration> cancelled_at;
  bool was_cancelled_in_call = false;  ///< before the operation of the same expression
  bool may_still_return = false;       ///< it came when nothing was awaited any more

  // What the parties saw.
  std::vector<Call> calls;
  std::vector<std::exception_ptr> errors;  ///< thrown by the parties, in order
  int probes = 0, screenshots = 0, actions = 0, agent_runs = 0, step_runs = 0;
  bool was_aborted = false, has_unbounded_hang = false;
  Duration unit_start{0}, agent_started{0}, agent_ended{0}, last_action_end{0};
  Duration patience{0};   ///< what its parties take to end after a cancellation
  std::string permit;     ///< the page action that the last answer allows
  std::string last_verb;  ///< of the page action last carried out
  int repeats = 0;
  std::size_t next_answer = 0;
  std::vector<std::string> breaches;
};

/// The first `count` code points of a text.
std::string head(std::string_view text, std::size_t count);

/// A text of the model's with characters of two bytes across every cut.
std::string long_reason();

/// Starts the mission; `has_ended` tells when it has ended.
void start(World& world, Mission& mission, class Host& host);

}  // namespace vision::world
