#include "tests/world/world.hpp"

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

#include "tests/world/mission.hpp"
#include "vision/client/api_error.hpp"

namespace vision::world {
namespace {

World* running = nullptr;

struct InFlight {
  InFlight(World& w, const Visit& v) : world(w), visit(v) { ++world.in_flight; }
  InFlight(const InFlight&) = delete;
  InFlight& operator=(const InFlight&) = delete;
  ~InFlight() {
    --world.in_flight;
    visit.mission->visit_ended(world, visit);
  }
  World& world;
  const Visit& visit;
};

template <class E>
std::exception_ptr made(E error) {
  return std::make_exception_ptr(std::move(error));
}

}  // namespace

std::exception_ptr error_of(Fault fault) {
  // Longer than any cut, with characters of two bytes across every cut.
  std::string text = "x";
  for (int i = 0; i < 300; ++i) text += "é";
  switch (fault) {
    case Fault::connection_error: return made(APIConnectionError(text));
    case Fault::rate_limit: return made(RateLimitError(text, {429, "rate_limit_error", "r"}));
    case Fault::server_error: return made(InternalServerError(text, {529, "overloaded_error", "r"}));
    case Fault::bad_request: return made(BadRequestError(text, {400, "", "r"}));
    case Fault::page_error: return made(HostError(text));
    case Fault::odd_error:
    case Fault::call_throws_odd: return made(42);
    case Fault::own_abort: return made(boost::system::system_error(asio::error::operation_aborted));
    default: return made(std::logic_error(text));
  }
}

struct World::Baton {
  enum class Turn { loop, worker };
  enum class Request { none, cancel, hang, ended };

  // Gives the turn to the other side and waits until it comes back.
  void pass(Turn to, Turn mine) {
    std::unique_lock lock(mutex);
    turn = to;
    changed.notify_all();
    changed.wait(lock, [&] { return turn == mine; });
  }

  std::mutex mutex;
  std::condition_variable changed;
  Turn turn = Turn::loop;
  Request request = Request::none;
  Duration hangs_for{0};
  const std::thread::id loop_thread = std::this_thread::get_id();
  std::shared_ptr<Job> job;
  bool is_hung = false, can_go_on = false, cancels_at_end = false;
};

World::World(Conditions given)
    : time(std::make_shared<Time>(*this)), conditions(std::move(given)), rng_(conditions.seed) {
  runtime::install_time_source(io, time);
  baton_ = std::make_unique<Baton>();
  running = this;
}

World::~World() {
  running = nullptr;
}

World* World::current() {
  return running;
}

bool World::on_worker() const {
  return std::this_thread::get_id() != baton_->loop_thread;
}

void World::trace(std::string_view event) {
  const auto mix = [this](std::uint64_t value) { hash = (hash ^ value) * 1099511628211u; };
  for (const char c : event) mix(static_cast<unsigned char>(c));
  mix(static_cast<std::uint64_t>(now().count()));
  if (conditions.prints_trace) std::cout << "  " << runtime::to_seconds(now()) << " s  " << event << "\n";
}

Fault World::pass(SeamKind kind, std::string_view name) {
  const auto faults = faults_of(kind);
  Fault fault = Fault::none;
  if (conditions.faults_per_mille != 0 && random(1000) < conditions.faults_per_mille) {
    fault = faults[random(faults.size())];
  }
  if (const auto planned = conditions.plan.find(static_cast<int>(seams.size())); planned != conditions.plan.end()) {
    fault = planned->second;
  }
  trace("seam" + std::to_string(seams.size()) + " " + std::string(name) +
        (fault == Fault::none ? "" : ":" + std::string(name_of(fault))));
  seams.push_back(kind);
  return fault;
}

Duration World::latency() {
  using std::chrono::milliseconds;
  if (conditions.seed == 0) return milliseconds(100);
  if (conditions.seed == 1) return Duration::zero();
  switch (random(12)) {
    case 0: return Duration::zero();
    case 1: return milliseconds(random(5000));
    case 2: return milliseconds(random(25000));
    default: return milliseconds(1 + random(400));
  }
}

Visit World::visit(Mission& mission, std::string_view name) {
  Visit visit{&mission, name, pass(SeamKind::operation, name), latency(), now()};
  mission.visit_begins(*this, visit);
  if (visit.fault == Fault::cancel_before) cancel(mission);
  if (visit.fault == Fault::call_throws || visit.fault == Fault::call_throws_odd) {
    mission.visit_ended(*this, visit);
    std::rethrow_exception(mission.thrown(error_of(visit.fault)));
  }
  return visit;
}

void World::call(Mission& mission, std::string_view name) {
  const Fault fault = pass(SeamKind::call, name);
  if (fault == Fault::cancel_before) {
    cancel(mission);
    mission.was_cancelled_in_call = name == "mouse" || name == "keyboard";
  }
  if (fault == Fault::call_throws || fault == Fault::call_throws_odd) {
    std::rethrow_exception(mission.thrown(error_of(fault)));
  }
}

asio::awaitable<void> World::perform(Visit visit) {
  const InFlight in_flight_guard(*this, visit);
  Mission& mission = *visit.mission;
  const Time::Action cancel_it = [this, &mission] { cancel_soon(mission); };
  switch (visit.fault) {
    case Fault::hang:
      mission.hangs(visit.name);
      co_await time->elapse(never);
      break;
    case Fault::stubborn: {
      mission.hangs(visit.name);
      mission.patience += clean_up_time;
      co_await asio::this_coro::throw_if_cancelled(false);
      try {
        co_await time->elapse(never);
      } catch (const boost::system::system_error&) {
        trace("stubborn " + std::string(visit.name));
      }
      co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
      co_await asio::this_coro::throw_if_cancelled(true);
      co_await time->elapse(clean_up_time);
      break;
    }
    case Fault::cancel_during:
      time->at(visit.latency / 2, cancel_it);
      co_await time->elapse(visit.latency);
      break;
    case Fault::cancel_first: co_await time->elapse(visit.latency, cancel_it); break;
    case Fault::cancel_last: co_await time->elapse(visit.latency, nullptr, cancel_it); break;
    case Fault::late: mission.patience += tick; [[fallthrough]];
    case Fault::deadline_first:
    case Fault::deadline_last: co_await time->elapse_limit(visit.fault); break;
    default:
      if (visit.latency != Duration::zero()) co_await time->elapse(visit.latency);
  }
  if (visit.fault >= Fault::connection_error && visit.fault <= Fault::own_abort) {
    std::rethrow_exception(mission.thrown(error_of(visit.fault)));
  }
}

void World::cancel(Mission& mission) {
  if (!mission.has_started || mission.has_ended || mission.cancelled_at) return;
  trace("cancel " + mission.id);
  mission.cancelled_at = now();
  mission.may_still_return = in_append;
  mission.signal.emit(asio::cancellation_type::terminal);
}

void World::cancel_soon(Mission& mission) {
  asio::post(io, [this, &mission] { cancel(mission); });
}

Mission& World::any_mission() {
  return *missions[missions.size() == 1 ? 0 : random(missions.size())];
}

void World::violate(std::string text) {
  violations.push_back(std::move(text));
}

bool World::all_ended() const {
  return std::all_of(missions.begin(), missions.end(), [](const auto& m) { return m->has_ended; });
}

void World::run() {
  bool was_checked = false;
  for (;;) {
    io.restart();
    try {
      if (conditions.cancel_turn == turns) cancel_soon(any_mission());
      if (io.poll_one() > 0) {
        ++turns;
        continue;
      }
    } catch (...) {
      violate("9. an error came out of the event loop");
      continue;
    }
    if (std::exchange(baton_->can_go_on, false)) {
      run_worker();
      continue;
    }
    if (!baton_->is_hung && run_job()) continue;
    if (all_ended() && !std::exchange(was_checked, true)) {
      if (time->pending() != 0) violate("10. a timer was left running");
      if (in_flight != 0) violate("10. an operation was left running");
    }
    if (time->advance()) continue;
    if (all_ended()) break;
    if (time->release_parked()) continue;
    bool cancelled = false;
    for (auto& mission : missions) {
      if (mission->has_ended || mission->cancelled_at) continue;
      mission->was_stalled = cancelled = true;
      cancel_soon(*mission);
    }
    if (!cancelled) {
      violate("9. a cancellation was ignored: the mission never ends");
      break;
    }
  }
  io.restart();
  io.poll();
  if (!io.stopped()) violate("10. the event loop still has work");
}

bool World::run_job() {
  while (!jobs_.empty()) {
    baton_->job = jobs_.front().lock();
    jobs_.pop_front();
    if (baton_->job) return run_worker();
  }
  return false;
}

// What the worker tells the loop through the library is waited for, so that it
// comes in its turn and no other.
bool World::run_worker() {
  using enum Baton::Turn;
  for (;;) {
    baton_->request = Baton::Request::none;
    baton_->is_hung = false;
    baton_->pass(worker, loop);
    if (baton_->request == Baton::Request::cancel) {
      cancel_soon(any_mission());
      io.restart();
      io.poll();
      continue;
    }
    if (baton_->request == Baton::Request::hang) {
      baton_->is_hung = true;
      time->at(baton_->hangs_for, [this] { baton_->can_go_on = true; });
      return true;
    }
    const auto job = std::exchange(baton_->job, nullptr);
    if (job->is_awaited) {
      io.restart();
      io.run_one();
    }
    if (std::exchange(baton_->cancels_at_end, false)) cancel_soon(any_mission());
    return true;
  }
}

void World::job_begins(Job&) {
  std::unique_lock lock(baton_->mutex);
  baton_->changed.wait(lock, [&] { return baton_->turn == Baton::Turn::worker; });
}

void World::job_ends(Job&) {
  const Fault fault = pass(SeamKind::worker_file, "worker done");
  if (fault == Fault::hang) worker_hangs(std::chrono::hours(1));
  baton_->cancels_at_end = fault == Fault::cancel_before;
  const std::lock_guard lock(baton_->mutex);
  baton_->request = Baton::Request::ended;
  baton_->turn = Baton::Turn::loop;
  baton_->changed.notify_all();
}

void World::worker_hangs(Duration duration) {
  baton_->request = Baton::Request::hang;
  baton_->hangs_for = duration;
  baton_->pass(Baton::Turn::loop, Baton::Turn::worker);
}

void World::cancel_from_worker() {
  baton_->request = Baton::Request::cancel;
  baton_->pass(Baton::Turn::loop, Baton::Turn::worker);
}

}  // namespace vision::world
