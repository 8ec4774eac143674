#pragma once

#include <deque>
#include <random>
#include <semaphore>
#include <set>
#include <thread>

#include "tests/support/virtual_time.hpp"
#include "tests/world/plan.hpp"

/// @file
/// A world in which nothing happens by chance: one event loop in virtual time, on
/// which every place where the library can fail or suspend is numbered as it is
/// passed and can be given a fault.
namespace vision::world {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using runtime::Duration;

constexpr Duration tick = 1ns, never = 24h * 365 * 50, clean_up_time = 100ms;

class World;
struct Mission;

/// What became of a run.
struct Report {
  std::size_t turns = 0;    ///< handlers that the event loop ran
  std::vector<Kind> seams;  ///< in the order in which they were passed
  std::uint64_t hash = 1469598103934665603u;
  std::vector<std::string> violations;  ///< breaches of a promise, "number. text"
};

/// One visit of the library to a party.
struct Visit {
  Mission& mission;
  std::string_view name;
  Fault fault;
  Duration latency, start;
};

/// The virtual clock. The library's timers are seams; of what ends in one instant
/// they come last, but for what is to come after them.
class Time : public test::VirtualTime {
 public:
  explicit Time(World& world) : world_(world) {}
  using VirtualTime::call_after;
  std::unique_ptr<runtime::Timer> call_after(const asio::any_io_executor& executor, Duration delay,
                                             std::function<void()> callback) override;
  /// Until the next of the library's timers fires, as `visit`'s fault says; for the
  /// visit's latency when none is running.
  asio::awaitable<void> until_limit(const Visit& visit);
  /// Jumps to the next instant. False when nothing is due, ever.
  bool advance();
  /// When the next of the library's timers fires; `never` when none is running.
  Duration next_limit();

 private:
  World& world_;
  std::multimap<Duration, std::weak_ptr<void>> limits_;
};

class World {
 public:
  /// Throws std::invalid_argument when the plan names a fault that is none.
  explicit World(const Run& run);
  ~World();

  /// The one that runs, for the seams that no party owns.
  static inline World* current = nullptr;

  /// Numbers a seam and gives its fault. On the worker thread too.
  Fault pass(Kind kind, std::string_view name);
  /// A seam of a party: begins it, ...
  Visit visit(Mission& mission, std::string_view name, Kind kind = 'o');
  /// ... throws what is thrown before there is an awaitable, ...
  void enter(const Visit& visit);
  /// ... does the rest, which may suspend.
  asio::awaitable<void> perform(Visit visit);
  /// A seam of a party that does not suspend.
  void call(Mission& mission, std::string_view name) { enter(visit(mission, name, 'c')); }
  /// All of it.
  template <class T>
  asio::awaitable<T> seam(Mission& mission, std::string_view name, T value) {
    return with_value(seam(mission, name), std::move(value));
  }
  asio::awaitable<void> seam(Mission& mission, std::string_view name);

  /// The caller cancels: within a handler of the event loop, in a handler of its own,
  /// or around the end of `duration`, as `fault` says, if `alive` is still then.
  void cancel(Mission& mission);
  void cancel_soon(Mission& mission);
  void cancel_around(Fault fault, Mission& mission, Duration duration, int rank, const std::shared_ptr<void>& alive);
  /// The mission that a seam without an owner is said to belong to.
  Mission& any_mission();
  Mission& mission_named(std::string_view id);

  /// Runs everything to its end, or destroys the event loop on the way; says what did
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
  void worker_stands(Duration duration);
  std::deque<std::weak_ptr<void>> jobs;  ///< that were handed over; of each, who waits for it
  std::binary_semaphore to_worker{0}, to_loop{0};

  const Run spec;
  Report report;
  std::optional<asio::io_context> io{std::in_place};
  std::shared_ptr<Time> time;
  std::vector<std::unique_ptr<Mission>> missions;
  std::optional<Duration> gone_at;  ///< when the event loop was destroyed
  /// Held by every operation that has not ended.
  const std::shared_ptr<void> in_flight = std::make_shared<int>();
  int faulty_appends = 0;  ///< file operations of the log that were given a fault
  int cut_writes = 0, faulty_removals = 0;
  std::set<int> descriptors;  ///< that the library holds open
  bool in_append = false;     ///< a record is being written; after the last one nothing is awaited

 private:
  template <class T>
  static asio::awaitable<T> with_value(asio::awaitable<void> operation, T value) {
    co_await std::move(operation);
    co_return value;
  }
  Fault planned(const char* place, std::size_t number) const;
  bool step();
  bool let_worker_run();
  bool all_ended() const;
  bool cancel_all();
  void end_loop();

  std::map<std::string, Fault> plan_;
  std::mt19937_64 rng_;
  bool ends_loop_ = false, can_go_on_ = false;
  std::optional<Duration> stands_for_;  // the worker, in the middle of its job
  const std::thread::id loop_thread_ = std::this_thread::get_id();
};

}  // namespace vision::world
