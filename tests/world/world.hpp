#pragma once

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/world/fault.hpp"
#include "vision/runtime/time.hpp"

/// @file
/// A world in which nothing happens by chance: one event loop in virtual time, on
/// which every place where the library can fail or suspend is numbered as it is
/// passed and can be given a fault.
namespace vision::world {

namespace asio = boost::asio;
using runtime::Duration;

constexpr Duration tick{1}, never = std::chrono::hours(24 * 365 * 50), clean_up_time = std::chrono::milliseconds(100);

struct Mission;

/// What a run is made of, besides its scenarios.
struct Conditions {
  std::uint64_t seed = 0;  ///< latencies and scheduling; 0 for latencies of 100 ms, 1 for none
  Plan plan;
  std::optional<std::size_t> cancel_turn;  ///< the caller cancels after so many handlers of the event loop
  unsigned faults_per_mille = 0;           ///< of seams that a seeded fault hits
  bool prints_trace = false;
};

/// One visit of the library to a party.
struct Visit {
  Mission* mission = nullptr;
  std::string_view name;
  Fault fault = Fault::none;
  Duration latency{0}, start{0};
};

/// The fault that a party throws for a seam: made once, so that it can be found again.
std::exception_ptr error_of(Fault fault);

class World;

/// The virtual clock. Timers of one instant fire in one turn, in the order in which
/// they were set; what is parked completes in the turn of a time limit.
class Time : public runtime::TimeSource {
 public:
  explicit Time(World& world) : world_(world) {}

  Duration steady_now() const override { return now_; }
  Duration wall_now() const override { return std::chrono::seconds(1763319900) + now_; }
  /// The library's timers, which are seams.
  asio::awaitable<void> sleep(Duration duration) override;

  /// A party's: `before` and `after` run in the turn of completion.
  using Action = std::function<void()>;
  asio::awaitable<void> elapse(Duration duration, Action before = nullptr, Action after = nullptr);
  /// Until the next of the library's timers fires: in its turn, or a tick later and
  /// then deaf to cancellation.
  asio::awaitable<void> elapse_limit(Fault how);
  void at(Duration from_now, Action action);

  /// Jumps to the next instant. False when nothing is due, ever.
  bool advance();
  /// Ends what waits for a time limit that never comes; false when nothing does.
  bool release_parked();
  /// The library's timers that have not fired.
  std::size_t pending() const { return limits_.size(); }

 private:
  using Complete = std::function<void(boost::system::error_code)>;
  using Key = std::pair<Duration, std::uint64_t>;
  struct Timer {
    Complete complete;
    Action before, after;
    Fault parked = Fault::none;
  };
  asio::awaitable<void> start(Duration duration, std::shared_ptr<Timer> timer);
  asio::awaitable<void> limit(Duration duration, std::shared_ptr<Timer> timer);
  void finish(Key key, boost::system::error_code error);
  void finish_parked(Fault how, Duration extra);

  World& world_;
  Duration now_{0};
  std::map<Key, std::shared_ptr<Timer>> timers_;
  std::multiset<Duration> limits_;
  std::uint64_t last_id_ = 0;
};

/// A job that was handed to the library's worker thread.
struct Job {
  bool is_awaited = true;
};

class World {
 public:
  explicit World(Conditions conditions);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  static World* current();  ///< the one that runs, for the seams that no party owns

  /// Numbers a seam and gives its fault. On the worker thread too.
  Fault pass(SeamKind kind, std::string_view name);
  /// A seam of a party: cancels or throws what the fault says at once.
  Visit visit(Mission& mission, std::string_view name);
  /// A seam of a party that gives its value at once.
  void call(Mission& mission, std::string_view name);
  /// The suspending part of a visit.
  asio::awaitable<void> perform(Visit visit);

  /// The caller cancels: within a handler of the event loop, or in one of its own.
  void cancel(Mission& mission);
  void cancel_soon(Mission& mission);
  /// The mission that a seam without an owner is said to belong to.
  Mission& any_mission();

  /// Runs everything to its end; says what did not end.
  void run();

  /// A breach of a promise, "number. text".
  void violate(std::string text);

  Duration now() const { return time->steady_now(); }
  Duration latency();
  std::uint64_t random(std::uint64_t bound) { return rng_() % bound; }
  void trace(std::string_view event);

  asio::io_context io;
  std::shared_ptr<Time> time;
  Conditions conditions;
  std::vector<std::unique_ptr<Mission>> missions;
  std::vector<SeamKind> seams;  ///< in the order in which they were passed
  std::vector<std::string> violations;
  std::uint64_t hash = 1469598103934665603u;
  std::size_t turns = 0;   ///< handlers that the event loop ran
  int in_flight = 0;       ///< visits that have not ended
  int faulty_appends = 0;  ///< file operations of the log that were given a fault
  int cut_writes = 0;
  int faulty_removals = 0;    ///< fixtures whose removal failed
  std::set<int> descriptors;  ///< that the library holds open
  bool in_append = false;     ///< a record is being written; after the last one nothing is awaited

  // The worker thread, which runs only while the event loop stands still.
  void hand_over(std::weak_ptr<Job> job) { jobs_.push_back(std::move(job)); }
  void job_begins(Job& job);
  void job_ends(Job& job);
  void worker_hangs(Duration duration);
  void cancel_from_worker();
  bool on_worker() const;

 private:
  bool run_job();
  bool run_worker();
  bool all_ended() const;

  std::mt19937_64 rng_;
  std::deque<std::weak_ptr<Job>> jobs_;
  struct Baton;
  std::unique_ptr<Baton> baton_;
};

}  // namespace vision::world
