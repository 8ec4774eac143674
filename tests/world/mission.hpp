#pragma once

#include <algorithm>

#include "tests/support/scripted.hpp"
#include "tests/world/world.hpp"

namespace vision::world {

using test::HostError;

/// The error that a party throws for a seam, null when the fault is none, and the
/// reason of a call that it ends.
struct PlannedError {
  std::exception_ptr error;
  std::string reason;
};
PlannedError planned_error(Fault fault);

/// A text longer than any cut, with characters of two bytes across every cut.
std::string long_text();

/// One ask call as its model sees it: one request, or two when the first met a
/// transport error. What the ledger has to hold follows from it alone.
struct Call {
  enum class Fate { open, retrying, dropped, either, answered, failed, timed_out };

  bool is_recorded() const { return fate >= Fate::answered; }
  double latency_ms() const { return runtime::to_seconds(end - start) * 1000.0; }

  Fate fate = Fate::open;
  std::string model;
  int requests = 0;
  Duration start{0}, request_start{0}, end{0};
  std::string reason;  ///< of a declare_failure result
  Answer answer;
  bool was_hooked = false;
};

/// A mission's page. Each operation is a visit.
class Page : public BrowserPage, private Mouse, private Keyboard {
 public:
  Page(World& world, Mission& mission) : world_(world), mission_(mission) {}
  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override {
    return world_.seam(mission_, "screenshot", Bytes(std::string("PNG")));
  }
  asio::awaitable<boost::json::value> evaluate(std::string) override {
    return world_.seam(mission_, "evaluate", boost::json::value(2.0));
  }
  std::optional<boost::json::object> viewport_size() override {
    world_.call(mission_, "viewport_size");
    return boost::json::object{{"width", 1280}, {"height", 800}};
  }
  Mouse& mouse() override {
    world_.call(mission_, "mouse");
    return *this;
  }
  Keyboard& keyboard() override {
    world_.call(mission_, "keyboard");
    return *this;
  }

 private:
  asio::awaitable<void> click(double, double) override { return world_.seam(mission_, "click"); }
  asio::awaitable<void> wheel(double, double) override { return world_.seam(mission_, "scroll"); }
  asio::awaitable<void> type(std::string, std::chrono::milliseconds) override { return world_.seam(mission_, "type"); }
  asio::awaitable<void> press(std::string) override { return world_.seam(mission_, "key"); }

  World& world_;
  Mission& mission_;
};

/// One call of one mode, and all that the parties saw of it.
struct Mission {
  Mission(World& in, std::string name, const Scenario& what);

  // Told by the world about every visit.
  void visit_begins(const Visit& visit);
  void visit_ended(const Visit& visit);
  std::exception_ptr thrown(Fault fault, std::string_view seam) {
    return errors.emplace_back(seam, planned_error(fault).error).second;
  }
  /// By any seam, when none is named.
  bool threw(const std::exception_ptr& what, std::string_view seam = {}) const {
    return std::any_of(errors.begin(), errors.end(), [&](const auto& thrown) {
      return thrown.second == what && (seam.empty() || thrown.first == seam);
    });
  }

  /// How long the screenshot and the ask of one step may take; `never` for modes
  /// without such a limit.
  Duration unit_limit() const {
    if (scenario.mode == Mode::act_loop) return 52s;
    return scenario.mode == Mode::shadow || scenario.mode == Mode::observer ? 28s : never;
  }
  bool in_unit(std::string_view name) const {
    return unit_limit() != never && (name == "screenshot" || name == "evaluate" || name == "create" || name == "hook");
  }
  /// What the answer allows the mission to do to the page.
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
  Page page;
  asio::cancellation_signal signal;

  // How it ended.
  bool has_started = false, has_ended = false, was_stalled = false;
  std::exception_ptr error;
  std::optional<ActionResult> result;
  boost::json::object value;  ///< a record, an agent's value or a scripted step's
  Duration started{0}, ended{0};

  // The caller's cancellation.
  std::optional<Duration> cancelled_at;
  bool was_cancelled_in_call = false;  ///< before the operation of the same expression
  bool may_still_return = false;       ///< it came when nothing was awaited any more

  // What the parties saw.
  std::vector<Call> calls;
  std::vector<std::pair<std::string_view, std::exception_ptr>> errors;  ///< thrown by the parties, in order
  std::map<std::string_view, int> visits;                               ///< how often each seam was begun
  bool was_aborted = false, has_unbounded_hang = false;
  int actions = 0;  ///< on the page
  Duration unit_start{0}, agent_ended{0}, settled_at{0}, last_end{0};
  Duration patience{0};  ///< what its parties take to end after a cancellation
  std::string permit;    ///< the page action that the last answer allows
  std::size_t next_answer = 0;
};

/// The host of a world's missions: one client, shared, with the scripted model
/// behind it. Reckons what the ledger has to hold.
class Host : private MessagesClient {
 public:
  Host(World& world, std::int64_t budget, bool hook);

  const bool has_hook;
  VisionClient client;

 private:
  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;
  Call& call_of(Mission& mission, const MessagesRequest& request);
  asio::awaitable<boost::json::value> respond(Visit visit, std::size_t place);
  void give_up(Mission& mission, Call& call, Fault fault);
  asio::awaitable<void> hook(const ActionResult& result, const FlowContext& context);

  World& world_;
  const std::int64_t budget_;
  Duration last_end_ = never;  ///< of the last request that ended
};

/// Starts the mission; `has_ended` tells when it has ended.
void start(Mission& mission, VisionClient& client);

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
