#include <algorithm>

#include "tests/world/world.hpp"

namespace vision::world {

asio::awaitable<void> Time::sleep(Duration duration) {
  const Fault fault = world_.pass(SeamKind::timer, "timer");
  auto timer = std::make_shared<Timer>();
  const Action cancel = [this] { world_.cancel_soon(world_.any_mission()); };
  if (fault == Fault::cancel_before) cancel();
  if (fault == Fault::cancel_first) timer->before = cancel;
  if (fault == Fault::cancel_last) timer->after = cancel;
  if (fault == Fault::cancel_during) at(std::min<Duration>(duration / 2, std::chrono::milliseconds(50)), cancel);
  return limit(duration, std::move(timer));
}

asio::awaitable<void> Time::limit(Duration duration, std::shared_ptr<Timer> timer) {
  struct Entry {
    Entry(std::multiset<Duration>& all, Duration when) : limits(all), place(all.insert(when)) {}
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry() { limits.erase(place); }
    std::multiset<Duration>& limits;
    std::multiset<Duration>::iterator place;
  };
  const Entry entry(limits_, now_ + duration);
  co_await start(duration, std::move(timer));
}

asio::awaitable<void> Time::elapse(Duration duration, Action before, Action after) {
  auto timer = std::make_shared<Timer>();
  timer->before = std::move(before);
  timer->after = std::move(after);
  return start(duration, std::move(timer));
}

asio::awaitable<void> Time::elapse_limit(Fault how) {
  auto timer = std::make_shared<Timer>();
  timer->parked = how;
  return start(never, std::move(timer));
}

asio::awaitable<void> Time::start(Duration duration, std::shared_ptr<Timer> timer) {
  co_await asio::async_initiate<decltype(asio::use_awaitable), void(boost::system::error_code)>(
      [this](auto handler, Duration d, std::shared_ptr<Timer> t) {
        auto slot = asio::get_associated_cancellation_slot(handler);
        auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        t->complete = [this, shared](auto error) {
          asio::post(world_.io, [shared, error] {
            auto moved = std::move(*shared);
            std::move(moved)(error);
          });
        };
        const Key key(now_ + d, ++last_id_);
        timers_.emplace(key, t);
        if (slot.is_connected() && t->parked != Fault::late) {
          slot.assign([this, key](auto) { finish(key, asio::error::operation_aborted); });
        }
      },
      asio::use_awaitable, duration, std::move(timer));
}

void Time::at(Duration from_now, Action action) {
  auto timer = std::make_shared<Timer>();
  timer->complete = [action = std::move(action)](auto) { action(); };
  timers_.emplace(Key(now_ + from_now, ++last_id_), std::move(timer));
}

bool Time::advance() {
  if (timers_.empty() || timers_.begin()->first.first >= never) return false;
  const Duration next = timers_.begin()->first.first;
  now_ = std::max(now_, next);
  const bool limit_ends = limits_.contains(next);
  if (limit_ends) finish_parked(Fault::deadline_first, Duration::zero());
  std::vector<Key> due;
  for (auto timer = timers_.begin(); timer != timers_.end() && timer->first.first == next; ++timer)
    due.push_back(timer->first);
  for (const Key& key : due) finish(key, {});
  if (limit_ends) {
    finish_parked(Fault::deadline_last, Duration::zero());
    finish_parked(Fault::late, tick);
  }
  return true;
}

bool Time::release_parked() {
  const auto first = timers_.empty() ? Key() : timers_.begin()->first;
  for (const Fault how : {Fault::deadline_first, Fault::deadline_last, Fault::late}) finish_parked(how, tick);
  return !timers_.empty() && timers_.begin()->first != first;
}

void Time::finish_parked(Fault how, Duration extra) {
  std::vector<Key> parked;
  for (const auto& [key, timer] : timers_)
    if (key.first >= never && timer->parked == how) parked.push_back(key);
  for (const Key& key : parked) {
    if (extra == Duration::zero()) {
      finish(key, {});
      continue;
    }
    auto node = timers_.extract(key);
    node.key() = Key(now_ + extra, ++last_id_);
    timers_.insert(std::move(node));
  }
}

// A timer that has fired is gone when a late cancellation looks for it.
void Time::finish(Key key, boost::system::error_code error) {
  const auto found = timers_.find(key);
  if (found == timers_.end()) return;
  const auto timer = found->second;
  timers_.erase(found);
  if (!error && timer->before) timer->before();
  std::exchange(timer->complete, nullptr)(error);
  if (!error && timer->after) timer->after();
}

}  // namespace vision::world
