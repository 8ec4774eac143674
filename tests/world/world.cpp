#include "tests/world/world.hpp"

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <iostream>
#include <sstream>

#include "tests/world/mission.hpp"

namespace vision::world {
namespace {

constexpr int limit_rank = 10;

}  // namespace

std::unique_ptr<runtime::Timer> Time::call_after(const asio::any_io_executor& executor, Duration delay,
                                                 std::function<void()> callback) {
  const Fault fault = world_.pass('t', "timer");
  auto alive = std::make_shared<int>();
  if (fault == Fault::cancel_before) world_.cancel_soon(world_.any_mission());
  world_.cancel_around(fault, world_.any_mission(), delay, limit_rank, alive);
  limits_.emplace(steady_now() + delay, alive);
  auto fire = [alive = std::move(alive), callback = std::move(callback)]() mutable {
    alive.reset();
    callback();
  };
  return VirtualTime::call_after(executor, delay, limit_rank, std::move(fire));
}

asio::awaitable<void> Time::until_limit(const Visit& visit) {
  // A time limit is set after what it bounds has begun.
  co_await asio::post(asio::use_awaitable);
  const Duration limit = next_limit();
  const Duration rest = limit == never ? visit.latency : limit - steady_now();
  co_await sleep_ranked(rest, visit.fault == Fault::deadline_last ? 2 * limit_rank : 0);
  if (visit.fault == Fault::late) co_await sleep_deaf(tick);
}

bool Time::advance() {
  if (until_next() >= never / 2) return false;
  do VirtualTime::advance();
  while (until_next() == Duration::zero());
  return true;
}

Duration Time::next_limit() {
  std::erase_if(limits_, [](const auto& limit) { return limit.second.expired(); });
  return limits_.empty() ? never : limits_.begin()->first;
}

World::World(const Run& run) : spec(run), time(std::make_shared<Time>(*this)), rng_(run.seed) {
  runtime::install_time_source(*io, time);
  std::istringstream faults(run.plan);
  for (std::string fault; std::getline(faults, fault, ',');) {
    const auto colon = fault.find(':');
    plan_[fault.substr(0, colon)] = fault_named(fault.substr(colon + 1));
  }
  current = this;
}

World::~World() {
  current = nullptr;
}

void World::trace(const std::string& event) {
  const auto mix = [this](std::uint64_t value) { report.hash = (report.hash ^ value) * 1099511628211u; };
  for (const char c : event) mix(static_cast<unsigned char>(c));
  mix(static_cast<std::uint64_t>(now().count()));
  if (spec.prints_trace) std::cout << "  " << runtime::to_seconds(now()) << " s  " << event << "\n";
}

Fault World::planned(const char* place, std::size_t number) const {
  const auto found = plan_.empty() ? plan_.end() : plan_.find(place + std::to_string(number));
  return found == plan_.end() ? Fault::none : found->second;
}

Fault World::pass(Kind kind, std::string_view name) {
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
  constexpr std::uint64_t bounds_ms[] = {1, 5000, 25000, 400};  // the last one mostly
  if (spec.seed <= 1) return spec.seed == 0 ? 100ms : 0ms;
  return random(bounds_ms[std::min<std::uint64_t>(random(12), 3)]) * 1ms;
}

Visit World::visit(Mission& mission, std::string_view name, Kind kind) {
  const Fault fault = pass(kind, name);
  const Visit visit{mission, name, fault, kind == 'o' ? latency() : Duration::zero(), now()};
  mission.visit_begins(visit);
  return visit;
}

void World::enter(const Visit& visit) {
  Mission& mission = visit.mission;
  if (visit.fault == Fault::cancel_before) {
    cancel(mission);
    mission.was_cancelled_in_call = visit.name == "mouse" || visit.name == "keyboard";
  }
  if (visit.fault != Fault::call_throws && visit.fault != Fault::call_throws_odd) return;
  mission.visit_ended(visit);
  std::rethrow_exception(mission.thrown(visit.fault, visit.name));
}

asio::awaitable<void> World::seam(Mission& mission, std::string_view name) {
  const Visit begun = visit(mission, name);
  enter(begun);
  return perform(begun);
}

asio::awaitable<void> World::perform(Visit visit) {
  Mission& mission = visit.mission;
  const auto held = in_flight;
  const auto at_end = [&visit](void*) { visit.mission.visit_ended(visit); };
  const std::shared_ptr<void> alive(nullptr, at_end);
  cancel_around(visit.fault, mission, visit.latency, 0, alive);
  if (visit.fault == Fault::late) mission.patience += tick;
  if (visit.fault == Fault::stubborn) mission.patience += clean_up_time;
  const bool hangs = visit.fault == Fault::hang || visit.fault == Fault::stubborn;
  if (hangs && visit.name != "create" && !mission.in_unit(visit.name)) mission.has_unbounded_hang = true;
  switch (visit.fault) {
    case Fault::hang: co_await time->sleep_ranked(never, 0); break;
    case Fault::stubborn:
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
    case Fault::late:
    case Fault::deadline_first:
    case Fault::deadline_last: co_await time->until_limit(visit); break;
    default:
      // Most of what takes no time does not suspend either.
      if (visit.latency != 0s || visit.fault >= Fault::cancel_during) co_await time->sleep_ranked(visit.latency, 0);
  }
  if (planned_error(visit.fault).error) std::rethrow_exception(mission.thrown(visit.fault, visit.name));
}

void World::cancel(Mission& mission) {
  if (!mission.has_started || mission.has_ended || mission.cancelled_at) return;
  trace("cancel " + mission.id);
  mission.cancelled_at = now();
  mission.may_still_return = in_append;
  // By the usual request, by the weakest, or by the one and then the other, which
  // Asio's coroutines remember in its place.
  if (spec.seed % 3 != 1) mission.signal.emit(asio::cancellation_type::terminal);
  if (spec.seed % 3 != 0) mission.signal.emit(asio::cancellation_type::total);
}

void World::cancel_soon(Mission& mission) {
  if (io) asio::post(*io, [this, &mission] { cancel(mission); });
}

void World::cancel_around(Fault fault, Mission& mission, Duration duration, int rank,
                          const std::shared_ptr<void>& alive) {
  if (fault < Fault::cancel_during || fault > Fault::cancel_last) return;
  const auto when = fault == Fault::cancel_during ? std::min<Duration>(duration / 2, 50ms) : duration;
  time->at(when, fault == Fault::cancel_last ? rank + 1 : rank - 1,
           [this, &mission, weak = std::weak_ptr<void>(alive)] {
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
  while (!ends_loop_ && planned("turn", report.turns) != Fault::loop_ends) {
    if (step()) continue;
    if (all_ended() && !std::exchange(was_checked, true)) {
      expect(time->next_limit() == never, "10. a timer was left running");
      expect(in_flight.use_count() == 1, "10. an operation was left running");
    }
    if (time->advance() || cancel_all()) continue;
    expect(all_ended(), "9. a cancellation was ignored: the mission never ends");
    io->restart();
    io->poll();
    expect(io->stopped(), "10. the event loop still has work");
    break;
  }
  end_loop();
}

// One handler of the event loop, or what the worker does until it needs the loop.
bool World::step() {
  io->restart();
  if (planned("turn", report.turns) == Fault::cancel_before) cancel_soon(any_mission());
  try {
    if (io->poll_one() > 0) return ++report.turns > 0;
  } catch (...) {
    expect(false, "9. an error came out of the event loop");
    return true;
  }
  return (std::exchange(can_go_on_, false) || !stands_for_) && let_worker_run();
}

// What nothing else ends.
bool World::cancel_all() {
  bool cancelled = false;
  for (auto& mission : missions) {
    if (mission->has_ended || mission->cancelled_at) continue;
    mission->was_stalled = cancelled = true;
    cancel_soon(*mission);
  }
  return cancelled;
}

// With whatever still waits on it.
void World::end_loop() {
  trace("the event loop ends");
  gone_at = now();
  io.reset();
  while (let_worker_run()) continue;
  expect(time->next_limit() == never, "10. a timer outlived the event loop");
  expect(in_flight.use_count() == 1, "10. an operation outlived the event loop");
}

// Until it has done its job or stands in the middle of it. What it tells the loop
// then is waited for, so that it comes in its turn and no other.
bool World::let_worker_run() {
  if (jobs.empty()) return false;
  stands_for_.reset();
  to_worker.release();
  to_loop.acquire();
  if (stands_for_ && io) time->at(*stands_for_, 0, [this] { can_go_on_ = true; });
  if (stands_for_) return true;
  const bool is_awaited = !jobs.front().expired();
  jobs.pop_front();
  if (!is_awaited || !io) return true;
  io->restart();
  io->run_one();
  return true;
}

void World::worker_stands(Duration duration) {
  stands_for_ = duration;
  to_loop.release();
  to_worker.acquire();
}

}  // namespace vision::world
