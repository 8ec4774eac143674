#pragma once

#include <deque>
#include <random>
#include <semaphore>
#include <set>
#include <thread>

#include "tests/world/fault.hpp"
#include "tests/world/scenario.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/testing/virtual_time.hpp"

/// @file
/// A world in which nothing happens by chance: one event loop in virtual time. Every
/// place where the library can fail or suspend is numbered as it is passed, and can be
/// given a fault. See README.md.
namespace vision::world {

namespace asio = boost::asio;

constexpr Duration tick = 1ns, clean_up_time = 100ms;

class World;
struct Caller;

/// What makes one run. The same run leaves the same trace.
struct Run {
  const Scenario* scenario = nullptr;  ///< null for a world of several callers and seeded faults
  /// Decides latencies (0: 100 ms each, 1: none) and how the caller cancels (in turn by a
  /// terminal request, a total one, or both).
  std::uint64_t seed = 0;
  std::string plan = {};  ///< faults and what they hit: "seam12:hang,turn20:loop_ends"
  bool prints_trace = false;
};

/// What became of a run.
struct Report {
  std::size_t turns = 0;        ///< handlers that the event loop ran
  std::vector<unsigned> seams;  ///< the places of each, in the order in which they were passed
  std::uint64_t hash = 1469598103934665603u;
  std::vector<std::string> violations;  ///< breaches of a promise, "number. text"
};

/// One visit of the library to a caller's page, model or code.
struct Visit {
  Caller& caller;
  std::string name;
  Fault fault;
  Duration latency, start;
};

/// The virtual clock. The library's timers are seams. At one instant they fire last,
/// except for what a fault puts after them.
class Time : public test::VirtualTime {
 public:
  explicit Time(World& world) : world_(world) {}
  using VirtualTime::call_after;
  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay,
                                             std::function<void()> callback) override;
  /// Waits until the library's next timer fires, or just before or after, as the fault
  /// of `visit` says; for the visit's latency when no timer is running.
  asio::awaitable<void> until_limit(Visit visit);
  /// Jumps to the next instant. Returns false when nothing will ever be due.
  bool advance();
  /// When the next of the library's timers fires; `never` when none is running.
  Duration next_limit();

 private:
  World& world_;
  std::multimap<Duration, std::weak_ptr<void>> limits_;
};

class World {
 public:
  /// Throws std::invalid_argument when the plan names an unknown fault.
  explicit World(const Run& run);
  ~World();

  /// The running world, for seams that do not belong to a caller.
  static inline World* current = nullptr;

  /// Numbers a seam and returns its fault. On the worker thread too.
  Fault pass(unsigned places, std::string_view name);
  /// A caller's seam that may suspend.
  asio::awaitable<void> operation(Caller& caller, std::string_view name);
  /// One that does not.
  void call(Caller& caller, std::string_view name) { enter(visit(caller, name, place::call)); }
  /// The same in three parts: begins the visit, ...
  Visit visit(Caller& caller, std::string_view name, unsigned places = place::operation);
  /// ... throws what is thrown before there is an awaitable, ...
  void enter(const Visit& visit);
  /// ... does the rest.
  asio::awaitable<void> perform(Visit visit);

  /// The caller cancels: within a handler of the event loop, in a handler of its own,
  /// or around the end of `duration`, as `fault` says, if `alive` still exists then.
  void cancel(Caller& caller, bool may_still_return = false);
  void cancel_soon(Caller& caller) {
    if (io) asio::post(*io, [this, &caller] { cancel(caller); });
  }
  void cancel_around(const Fault& fault, Caller& caller, Duration duration, int rank,
                     const std::shared_ptr<void>& alive);
  /// The caller to whom a fault of the worker or of a timer happens.
  Caller& any_caller();
  Caller& caller_named(std::string_view id);

  /// Runs everything to its end, or destroys the event loop on the way; reports what did
  /// not end.
  void run();

  void expect(bool holds, std::string_view text) {
    if (!holds) report.violations.emplace_back(text);
  }
  Duration now() const { return time->steady_now(); }
  Duration latency();
  std::uint64_t random(std::uint64_t bound) { return rng_() % bound; }
  void trace(const std::string& event);

  // The worker thread, which runs only while the event loop stands still.
  bool on_worker() const { return std::this_thread::get_id() != loop_thread_; }
  void worker_pauses(Duration duration);
  std::deque<std::weak_ptr<void>> jobs;  ///< handed over; for each, whether it is still awaited
  std::binary_semaphore to_worker{0}, to_loop{0};

  const Run spec;
  Report report;
  std::optional<asio::io_context> io{std::in_place};
  std::shared_ptr<Time> time;
  std::vector<std::unique_ptr<Caller>> callers;
  std::optional<Duration> gone_at;  ///< when the event loop was destroyed
  /// Held by every operation that has not ended.
  const std::shared_ptr<void> in_flight = std::make_shared<int>();
  int faulty_appends = 0, cut_writes = 0, faulty_removals = 0;  ///< system calls that were given a fault
  std::set<int> descriptors;                                    ///< that the library holds open

 private:
  Fault planned(const char* what, std::size_t number) const;
  bool take_turn();
  bool let_worker_run();
  bool all_ended() const;
  bool cancel_all();
  void end_loop();

  std::map<std::string, Fault> plan_;
  std::mt19937_64 rng_;
  bool ends_loop_ = false, can_go_on_ = false;
  std::optional<Duration> pauses_for_;  // the worker, in the middle of its job
  const std::thread::id loop_thread_ = std::this_thread::get_id();
};

}  // namespace vision::world
