#include "tests/world/world.hpp"

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <iostream>

#include "tests/world/mission.hpp"

namespace vision::world {
namespace {

using std::chrono::milliseconds;

World* running = nullptr;

struct InFlight : Counted {
  InFlight(World& world, const Visit& v) : Counted(world.in_flight), visit(v) {}
  ~InFlight() { visit.mission.visit_ended(visit); }
  const Visit& visit;
};

}  // namespace

World::World(const Run& run) : spec(run), time(std::make_shared<Time>(*this, *io)), rng_(run.seed) {
  runtime::install_time_source(*io, time);
  running = this;
}

World::~World() {
  running = nullptr;
}

World* World::current() {
  return running;
}

void World::trace(const std::string& event) {
  const auto mix = [this](std::uint64_t value) { report.hash = (report.hash ^ value) * 1099511628211u; };
  for (const char c : event) mix(static_cast<unsigned char>(c));
  mix(static_cast<std::uint64_t>(now().count()));
  if (spec.prints_trace) std::cout << "  " << runtime::to_seconds(now()) << " s  " << event << "\n";
}

Fault World::planned(const char* place, std::size_t number) const {
  if (spec.plan.empty()) return Fault::none;
  const auto found = spec.plan.find(place + std::to_string(number));
  return found == spec.plan.end() ? Fault::none : found->second;
}

Fault World::pass(SeamKind kind, std::string_view name) {
  constexpr unsigned faults_per_mille = 20;
  Fault fault = planned("seam", report.seams.size());
  if (!spec.scenario && random(1000) < faults_per_mille) fault = faults_of(kind)[random(faults_of(kind).size())];
  const std::string seam = "seam" + std::to_string(report.seams.size()) + " " + std::string(name);
  trace(fault == Fault::none ? seam : seam + ":" + name_of(fault));
  report.seams.push_back(kind);
  if (fault == Fault::loop_ends) ends_loop_ = true;
  if (gone_at && !on_worker()) expect(false, "10. " + std::string(name) + " was begun after the end of the event loop");
  return fault;
}

Duration World::latency() {
  if (spec.seed == 0) return milliseconds(100);
  if (spec.seed == 1) return Duration::zero();
  switch (random(12)) {
    case 0: return Duration::zero();
    case 1: return milliseconds(random(5000));
    case 2: return milliseconds(random(25000));
    default: return milliseconds(1 + random(400));
  }
}

void World::call(Mission& mission, std::string_view name) {
  const Visit visit{mission, name, pass(SeamKind::call, name), Duration::zero(), now()};
  ++mission.visits[name];
  enter(visit);
  if (visit.fault == Fault::cancel_before) mission.was_cancelled_in_call = name == "mouse" || name == "keyboard";
}

Visit World::visit(Mission& mission, std::string_view name) {
  const Fault fault = pass(SeamKind::operation, name);
  const Visit visit{mission, name, fault, latency(), now()};
  mission.visit_begins(visit);
  return visit;
}

void World::enter(const Visit& visit) {
  if (visit.fault == Fault::cancel_before) cancel(visit.mission);
  if (visit.fault != Fault::call_throws && visit.fault != Fault::call_throws_odd) return;
  visit.mission.visit_ended(visit);
  std::rethrow_exception(visit.mission.thrown(visit.fault));
}

asio::awaitable<void> World::seam(Mission& mission, std::string_view name) {
  const Visit begun = visit(mission, name);
  enter(begun);
  return perform(begun);
}

asio::awaitable<void> World::perform(Visit visit) {
  const InFlight guard(*this, visit);
  const auto alive = std::make_shared<int>();
  cancel_around(visit.fault, visit.mission, visit.latency, 0, alive);
  switch (visit.fault) {
    case Fault::hang:
      visit.mission.hangs(visit.name);
      co_await time->sleep_ranked(never, 0);
      break;
    case Fault::stubborn:
      visit.mission.hangs(visit.name);
      visit.mission.patience += clean_up_time;
      co_await asio::this_coro::throw_if_cancelled(false);
      try {
        co_await time->sleep_ranked(never, 0);
      } catch (const boost::system::system_error&) {
        trace("stubborn " + std::string(visit.name));
      }
      co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
      co_await asio::this_coro::throw_if_cancelled(true);
      co_await time->sleep_ranked(clean_up_time, 0);
      break;
    case Fault::late: visit.mission.patience += tick; [[fallthrough]];
    case Fault::deadline_first:
    case Fault::deadline_last: co_await time->until_limit(visit); break;
    default:
      // Most of what takes no time does not suspend either.
      if (visit.latency != Duration::zero() || visit.fault >= Fault::cancel_during)
        co_await time->sleep_ranked(visit.latency, 0);
  }
  if (planned_error(visit.fault).error) std::rethrow_exception(visit.mission.thrown(visit.fault));
}

void World::cancel(Mission& mission) {
  if (!mission.has_started || mission.has_ended || mission.cancelled_at) return;
  trace("cancel " + mission.id);
  mission.cancelled_at = now();
  mission.may_still_return = in_append;
  mission.signal.emit(asio::cancellation_type::terminal);
}

void World::cancel_soon(Mission& mission) {
  if (io) asio::post(*io, [this, &mission] { cancel(mission); });
}

void World::cancel_around(Fault fault, Mission& mission, Duration duration, int rank,
                          const std::shared_ptr<void>& alive) {
  if (fault < Fault::cancel_during || fault > Fault::cancel_last) return;
  const auto when = fault == Fault::cancel_during ? std::min<Duration>(duration / 2, milliseconds(50)) : duration;
  const int place = fault == Fault::cancel_last ? rank + 1 : rank - 1;
  time->at(when, place, [this, &mission, weak = std::weak_ptr<void>(alive)] {
    if (!weak.expired()) cancel_soon(mission);
  });
}

Mission& World::any_mission() {
  return *missions[missions.size() == 1 ? 0 : random(missions.size())];
}

Mission& World::mission_named(std::string_view id) {
  for (auto& mission : missions)
    if (mission->id == id) return *mission;
  throw std::logic_error("no mission is named " + std::string(id));
}

bool World::all_ended() const {
  return std::all_of(missions.begin(), missions.end(), [](const auto& m) { return m->has_ended; });
}

void World::run() {
  bool was_checked = false;
  for (;;) {
    if (ends_loop_ || planned("turn", report.turns) == Fault::loop_ends) break;
    if (step()) continue;
    if (all_ended() && !std::exchange(was_checked, true)) {
      expect(!time->has_limits(), "10. a timer was left running");
      expect(in_flight == 0, "10. an operation was left running");
    }
    if (time->advance()) continue;
    if (all_ended()) {
      io->restart();
      io->poll();
      expect(io->stopped(), "10. the event loop still has work");
      break;
    }
    bool cancelled = false;
    for (auto& mission : missions) {
      if (mission->has_ended || mission->cancelled_at) continue;
      mission->was_stalled = cancelled = true;
      cancel_soon(*mission);
    }
    if (cancelled) continue;
    expect(false, "9. a cancellation was ignored: the mission never ends");
    break;
  }
  end_loop();
}

// One handler of the event loop, or what the worker does until it needs the loop.
bool World::step() {
  io->restart();
  if (planned("turn", report.turns) == Fault::cancel_before) cancel_soon(any_mission());
  try {
    if (io->poll_one() > 0) {
      ++report.turns;
      return true;
    }
  } catch (...) {
    expect(false, "9. an error came out of the event loop");
    return true;
  }
  if (!std::exchange(can_go_on_, false)) return !stands_for_ && run_job();
  run_worker();
  return true;
}

// With whatever still waits on it.
void World::end_loop() {
  trace("the event loop ends");
  gone_at = now();
  io.reset();
  while (stands_for_ || run_job()) {
    if (stands_for_) run_worker();
  }
  expect(!time->has_limits(), "10. a timer outlived the event loop");
  expect(in_flight == 0, "10. an operation outlived the event loop");
}

bool World::run_job() {
  if (jobs_.empty()) return false;
  run_worker();
  return true;
}

// Until the worker has done its job or stands in the middle of it. What it tells
// the loop then is waited for, so that it comes in its turn and no other.
void World::run_worker() {
  stands_for_.reset();
  to_worker_.release();
  to_loop_.acquire();
  if (stands_for_) {
    if (io) time->at(*stands_for_, 0, [this] { can_go_on_ = true; });
    return;
  }
  const bool is_awaited = !jobs_.front().expired();
  jobs_.pop_front();
  if (!is_awaited || !io) return;
  io->restart();
  io->run_one();
}

void World::worker_stands(Duration duration) {
  stands_for_ = duration;
  to_loop_.release();
  to_worker_.acquire();
}

}  // namespace vision::world
