#include <boost/asio/this_coro.hpp>

#include "tests/world/mission.hpp"

namespace vision::world {
namespace {

constexpr int limit_rank = 10;

}  // namespace

asio::awaitable<void> Time::sleep(Duration duration) {
  const auto alive = std::make_shared<int>();
  const Fault fault = world_.pass(SeamKind::timer, "timer");
  if (fault == Fault::cancel_before) world_.cancel_soon(world_.any_mission());
  world_.cancel_around(fault, world_.any_mission(), duration, limit_rank, alive);
  struct Entry {
    Entry(std::multiset<Duration>& all, Duration when) : limits(all), place(all.insert(when)) {}
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry() { limits.erase(place); }
    std::multiset<Duration>& limits;
    std::multiset<Duration>::iterator place;
  };
  const Entry entry(limits_, steady_now() + duration);
  co_await sleep_ranked(duration, limit_rank);
}

asio::awaitable<void> Time::until_limit(const Visit& visit) {
  // A time limit is set after what it bounds has begun.
  for (int turn = 0; turn < 4; ++turn) co_await asio::post(asio::use_awaitable);
  const Duration rest = limits_.empty() ? visit.latency : *limits_.begin() - steady_now();
  co_await sleep_ranked(rest, visit.fault == Fault::deadline_last ? 2 * limit_rank : 0);
  if (visit.fault == Fault::late) co_await sleep_deaf(tick);
}

bool Time::advance() {
  if (until_next() >= never / 2) return false;
  do {
    VirtualTime::advance();
  } while (until_next() == Duration::zero());
  return true;
}

}  // namespace vision::world
