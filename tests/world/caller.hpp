#pragma once

#include <algorithm>

#include "tests/support/scripted.hpp"
#include "tests/world/world.hpp"

namespace vision::world {

/// A text longer than any cut, with characters of two bytes across every cut.
std::string long_text();

/// One question to the model as the model sees it: one request, or two when the first
/// met a transport error. What the ledger must hold follows from it alone.
struct Call {
  enum class Fate { open, retrying, dropped, perhaps_recorded, answered, failed };

  bool is_recorded() const { return fate == Fate::answered || fate == Fate::failed; }
  double latency_ms() const { return runtime::to_seconds(end - start) * 1000.0; }

  Fate fate = Fate::open;
  std::string model;
  int requests = 0;
  Duration start{0}, request_start{0}, end{0};
  std::string reason;  ///< of a declare_failure result
  Answer answer;
  bool was_hooked = false;
};

/// A host's one use of one mode, and all that its page, model and code saw of it.
struct Caller {
  Caller(World& in, std::string name, const Scenario& what);

  // The world reports every visit.
  void visit_begins(const Visit& visit);
  void visit_ended(const Visit& visit);
  std::exception_ptr thrown(const Fault& fault, std::string_view seam) {
    return errors.emplace_back(seam, fault.make_error(long_text())).second;
  }
  /// By any seam, when none is named.
  bool threw(const std::exception_ptr& what, std::string_view seam = {}) const {
    return std::any_of(errors.begin(), errors.end(), [&](const auto& error_thrown) {
      return error_thrown.second == what && (seam.empty() || error_thrown.first == seam);
    });
  }
  /// Whether the library's time limit of a step covers the operation.
  bool in_step_limit(std::string_view name) const {
    const bool is_covered = name == "screenshot" || name == "evaluate" || name == "create" || name == "hook";
    return is_covered && scenario.mode.step_limit != never;
  }
  /// What the answer allows the mode to do to the page.
  void answered(const Answer& answer);
  /// Writes down a breach of a promise; `who` is part of the text.
  void expect(bool holds, std::string_view text, std::string_view who = {}) {
    if (!holds) world.expect(false, std::string(text) + std::string(who) + " (" + id + ")");
  }

  World& world;
  const std::string id;
  const Scenario& scenario;
  boost::json::object context;  ///< the caller's
  std::string context_text;     ///< as it was
  test::ScriptedPage page;      ///< each of its operations is a seam
  asio::cancellation_signal signal;

  // How it ended.
  bool has_started = false, has_ended = false, was_stalled = false;
  std::exception_ptr error;
  std::optional<ActionResult> result;
  boost::json::object value;  ///< a record, an agent's value or a scripted step's
  Duration started{0}, ended{0};

  // Its cancellation.
  std::optional<Duration> cancelled_at;
  bool was_cancelled_in_call = false;  ///< before the operation of the same expression
  bool may_still_return = false;       ///< it came after the last await

  // What its page, model and code saw.
  std::deque<Call> calls;
  std::vector<std::pair<std::string, std::exception_ptr>> errors;  ///< thrown by them, in order, with the seam
  std::map<std::string, int, std::less<>> visits;                  ///< how often each seam was begun
  bool was_aborted = false, has_unbounded_hang = false;
  int actions = 0;  ///< on the page
  Duration step_start{0}, agent_ended{0}, settled_at{0}, last_end{0};
  Duration patience{0};  ///< how long they take to end after a cancellation
  std::string permit;    ///< the page action that the last answer allows
  std::size_t next_answer = 0;
};

/// The host of a world's callers: one client, shared, with the scripted model behind
/// it. Works out what the ledger must hold.
class Host : private MessagesClient {
 public:
  Host(World& world, std::int64_t budget, bool hook);

  const bool has_hook;
  VisionClient client;

 private:
  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;
  Call& call_of(Caller& caller, const MessagesRequest& request);
  asio::awaitable<boost::json::value> respond(Visit visit, Call& call);
  void give_up(Caller& caller, Call& call, const Fault& fault);
  asio::awaitable<void> hook(const ActionResult& result, const FlowContext& context);

  World& world_;
  const std::int64_t budget_;
  Duration last_end_ = never;  ///< of the last request that ended
};

/// Starts the caller. `has_ended` says when it has ended.
void start(Caller& caller, VisionClient& client);

/// Checks what must hold after every run, whatever was done to it. `lines` are the
/// lines of the shadow log. Breaches go into the world's report, each with the
/// number of the promise:
///
///   1. the ledger                6. the caller's context
///   2. the act loop's records    7. no unbidden page action
///   3. shadow mode               8. time bounds
///   4. the observer's record     9. errors and cancellation
///   5. the wrapper's runs       10. nothing left behind
void check(World& world, Host& host, const std::vector<std::string>& lines);

}  // namespace vision::world
