#include "tests/world/world.hpp"

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <iostream>
#include <sstream>

#include "tests/support/ranked_sleep.hpp"
#include "tests/world/caller.hpp"

namespace vision::world {
namespace {

constexpr int limit_rank = 10;

bool cancels_around(const Fault& fault) {
  return fault == "cancel_during"_fault || fault == "cancel_first"_fault || fault == "cancel_last"_fault;
}

}  // namespace

std::unique_ptr<runtime::Timer> Time::call_after(const asio::any_io_executor& executor, Duration delay,
                                                 std::function<void()> callback) {
  const Fault fault = world_.pass(place::timer, "timer");
  auto alive = std::make_shared<int>();
  if (fault == "cancel_before"_fault) world_.cancel_soon(world_.any_caller());
  world_.cancel_around(fault, world_.any_caller(), delay, limit_rank, alive);
  limits_.emplace(steady_now() + delay, alive);
  auto fire = [alive = std::move(alive), callback = std::move(callback)]() mutable {
    alive.reset();
    callback();
  };
  return VirtualTime::call_after(executor, delay, limit_rank, std::move(fire));
}

asio::awaitable<void> Time::until_limit(Visit visit) {
  // A time limit starts after the operation that it bounds.
  co_await asio::post(asio::use_awaitable);
  const Duration limit = next_limit();
  const Duration rest = limit == never ? visit.latency : limit - steady_now();
  co_await test::sleep_ranked(*this, rest, visit.fault == "deadline_last"_fault ? 2 * limit_rank : 0);
  if (visit.fault == "late"_fault) co_await test::sleep_deaf(*this, tick);
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
  std::istringstream plan(run.plan);
  for (std::string fault; std::getline(plan, fault, ',');) {
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

Fault World::planned(const char* what, std::size_t number) const {
  const auto found = plan_.empty() ? plan_.end() : plan_.find(what + std::to_string(number));
  return found == plan_.end() ? "none"_fault : found->second;
}

Fault World::pass(unsigned places, std::string_view name) {
  constexpr unsigned faults_per_mille = 20;
  Fault fault = planned("seam", report.seams.size());
  if (!spec.scenario && random(1000) < faults_per_mille) fault = faults_at(places)[random(faults_at(places).size())];
  const std::string seam = "seam" + std::to_string(report.seams.size()) + " " + std::string(name);
  trace(fault == "none"_fault ? seam : seam + ":" + std::string(fault.name));
  report.seams.push_back(places);
  if (fault == "loop_ends"_fault) ends_loop_ = true;
  if (gone_at && !on_worker()) expect(false, "10. " + std::string(name) + " was begun after the end of the event loop");
  return fault;
}

Duration World::latency() {
  constexpr std::uint64_t bounds_ms[] = {1, 5000, 25000, 400};  // the last one mostly
  if (spec.seed <= 1) return spec.seed == 0 ? 100ms : 0ms;
  return random(bounds_ms[std::min<std::uint64_t>(random(12), 3)]) * 1ms;
}

Visit World::visit(Caller& caller, std::string_view name, unsigned places) {
  const Fault fault = pass(places, name);
  const Duration takes = places == place::operation ? latency() : Duration::zero();
  const Visit visit{caller, std::string(name), fault, takes, now()};
  caller.visit_begins(visit);
  return visit;
}

void World::enter(const Visit& visit) {
  Caller& caller = visit.caller;
  if (visit.fault == "cancel_before"_fault) {
    cancel(caller);
    caller.was_cancelled_in_call = visit.name == "mouse" || visit.name == "keyboard";
  }
  if (visit.fault != "call_throws"_fault && visit.fault != "call_throws_odd"_fault) return;
  caller.visit_ended(visit);
  std::rethrow_exception(caller.thrown(visit.fault, visit.name));
}

asio::awaitable<void> World::operation(Caller& caller, std::string_view name) {
  const Visit begun = visit(caller, name);
  enter(begun);
  return perform(begun);
}

asio::awaitable<void> World::perform(Visit visit) {
  Caller& caller = visit.caller;
  const Fault& fault = visit.fault;
  const auto held = in_flight;
  const auto at_end = [&visit](void*) { visit.caller.visit_ended(visit); };
  const std::shared_ptr<void> alive(nullptr, at_end);
  cancel_around(fault, caller, visit.latency, 0, alive);
  if (fault == "late"_fault) caller.patience += tick;
  if (fault == "stubborn"_fault) caller.patience += clean_up_time;
  const bool hangs = fault == "hang"_fault || fault == "stubborn"_fault;
  if (hangs && visit.name != "create" && !caller.in_step_limit(visit.name)) caller.has_unbounded_hang = true;
  if (fault == "hang"_fault) {
    co_await test::sleep_ranked(*time, never, 0);
  } else if (fault == "stubborn"_fault) {
    co_await asio::this_coro::throw_if_cancelled(false);
    try {
      co_await test::sleep_ranked(*time, never, 0);
    } catch (const boost::system::system_error&) {
      trace("stubborn " + visit.name);
    }
    co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
    co_await asio::this_coro::throw_if_cancelled(true);
    co_await test::sleep_ranked(*time, clean_up_time, 0);
  } else if (fault == "deadline_first"_fault || fault == "deadline_last"_fault || fault == "late"_fault) {
    co_await time->until_limit(visit);
  } else if (visit.latency != 0s || cancels_around(fault) || fault == "loop_ends"_fault) {
    co_await test::sleep_ranked(*time, visit.latency,
                                0);  // an operation that takes no time does not suspend, as a rule
  }
  if (fault.make_error) std::rethrow_exception(caller.thrown(fault, visit.name));
}

void World::cancel(Caller& caller, bool may_still_return) {
  if (!caller.has_started || caller.has_ended || caller.cancelled_at) return;
  trace("cancel " + caller.id);
  caller.cancelled_at = now();
  caller.may_still_return = may_still_return;
  // By a terminal request, by a total one (weaker), or by both: Asio's coroutines
  // remember only the later of the two.
  if (spec.seed % 3 != 1) caller.signal.emit(asio::cancellation_type::terminal);
  if (spec.seed % 3 != 0) caller.signal.emit(asio::cancellation_type::total);
}

void World::cancel_around(const Fault& fault, Caller& caller, Duration duration, int rank,
                          const std::shared_ptr<void>& alive) {
  if (!cancels_around(fault)) return;
  const auto when = fault == "cancel_during"_fault ? std::min<Duration>(duration / 2, 50ms) : duration;
  time->at(when, fault == "cancel_last"_fault ? rank + 1 : rank - 1,
           [this, &caller, weak = std::weak_ptr<void>(alive)] {
             if (!weak.expired()) cancel_soon(caller);
           });
}

Caller& World::any_caller() {
  return *callers[callers.size() == 1 ? 0 : random(callers.size())];
}

Caller& World::caller_named(std::string_view id) {
  for (auto& caller : callers)
    if (caller->id == id) return *caller;
  throw std::logic_error("no caller is named " + std::string(id));
}

bool World::all_ended() const {
  return std::all_of(callers.begin(), callers.end(), [](const auto& m) { return m->has_ended; });
}

void World::run() {
  bool was_checked = false;
  while (!ends_loop_ && planned("turn", report.turns) != "loop_ends"_fault) {
    if (take_turn()) continue;
    if (all_ended() && !std::exchange(was_checked, true)) {
      expect(time->next_limit() == never, "10. a timer was left running");
      expect(in_flight.use_count() == 1, "10. an operation was left running");
    }
    if (time->advance() || cancel_all()) continue;
    expect(all_ended(), "9. a cancellation was ignored: the caller never ends");
    io->restart();
    io->poll();
    expect(io->stopped(), "10. the event loop still has work");
    break;
  }
  end_loop();
}

// One handler of the event loop, or what the worker does until it needs the loop.
bool World::take_turn() {
  io->restart();
  if (planned("turn", report.turns) == "cancel_before"_fault) cancel_soon(any_caller());
  try {
    if (io->poll_one() > 0) return ++report.turns > 0;
  } catch (...) {
    expect(false, "9. an error came out of the event loop");
    return true;
  }
  return (std::exchange(can_go_on_, false) || !pauses_for_) && let_worker_run();
}

// Those that nothing else ends.
bool World::cancel_all() {
  bool cancelled = false;
  for (auto& caller : callers) {
    if (caller->has_ended || caller->cancelled_at) continue;
    caller->was_stalled = cancelled = true;
    cancel_soon(*caller);
  }
  return cancelled;
}

// Destroys it with whatever still waits on it.
void World::end_loop() {
  trace("the event loop ends");
  gone_at = now();
  io.reset();
  while (let_worker_run()) continue;
  expect(time->next_limit() == never, "10. a timer outlived the event loop");
  expect(in_flight.use_count() == 1, "10. an operation outlived the event loop");
}

// Until it has done its job or pauses in the middle of it. Then waits for its message to
// the event loop, so that it always arrives in the same turn.
bool World::let_worker_run() {
  if (jobs.empty()) return false;
  pauses_for_.reset();
  to_worker.release();
  to_loop.acquire();
  if (pauses_for_ && io) time->at(*pauses_for_, 0, [this] { can_go_on_ = true; });
  if (pauses_for_) return true;
  const bool is_awaited = !jobs.front().expired();
  jobs.pop_front();
  if (!is_awaited || !io) return true;
  io->restart();
  io->run_one();
  return true;
}

void World::worker_pauses(Duration duration) {
  pauses_for_ = duration;
  to_loop.release();
  to_worker.acquire();
}

}  // namespace vision::world
