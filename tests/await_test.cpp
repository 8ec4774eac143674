#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/environment.hpp"
#include "tests/support/ranked_sleep.hpp"
#include "tests/support/scripted.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/runtime/internal/await.hpp"

namespace vision::runtime {
namespace {

using namespace std::chrono_literals;
using test::pause;
using testing::ElementsAre;
namespace asio = boost::asio;
using Cancel = asio::cancellation_type;

enum class Await { try_await, gather_first, gather_second, with_deadline, with_own_cancellation };
constexpr const char* await_names[] = {"try_await", "gather, first", "gather, second", "with_deadline",
                                       "with_own_cancellation"};
constexpr Duration limit = 2s;

std::string text_of(const std::exception_ptr& error) {
  if (!error) return "value";
  try {
    std::rethrow_exception(error);
  } catch (const boost::system::system_error& e) {
    return e.code() == asio::error::operation_aborted ? "aborted" : e.what();
  } catch (const std::exception& e) {
    return e.what();
  }
}

// What the operation does.
enum Step { wait, wait_long, until_limit, until_past_limit, ignore, clean_up, cancel, fail, abort };

// One event loop, one caller on it and the operation that it awaits.
struct Scene {
  explicit Scene(std::vector<Step> operation) : steps(std::move(operation)) {}

  void cancel(Cancel type = Cancel::terminal) { signal.emit(type); }
  test::VirtualTime& time() { return *world->time; }

  const std::vector<Step> steps;
  asio::cancellation_signal signal;
  std::optional<test::VirtualLoop> world{std::in_place};
  bool is_cancelled_before = false;
  int starts = 0;
  std::string own_ending;  ///< what the operation itself made of it
  const std::shared_ptr<void> in_flight = std::make_shared<int>();
};

asio::awaitable<void> take(Scene& scene, Step step) {
  switch (step) {
    case wait: co_await pause(1); break;
    case wait_long: co_await pause(10); break;
    case until_limit: co_await test::sleep_ranked(scene.time(), limit, -1); break;
    case until_past_limit: co_await test::sleep_ranked(scene.time(), limit, 1); break;
    case ignore: co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation()); break;
    case clean_up:  // once it was cancelled, in half a second
      co_await asio::this_coro::throw_if_cancelled(false);
      try {
        co_await pause(10);
      } catch (const boost::system::system_error&) {
      }
      co_await asio::this_coro::reset_cancellation_state(asio::enable_terminal_cancellation());
      co_await asio::this_coro::throw_if_cancelled(true);
      co_await pause(0.5);
      break;
    case cancel: scene.cancel(); break;
    case fail: throw std::runtime_error("boom");
    case abort: throw boost::system::system_error(asio::error::operation_aborted);
  }
}

template <class T>
asio::awaitable<T> operation(Scene& scene) {
  const auto held = scene.in_flight;
  ++scene.starts;
  try {
    for (const Step step : scene.steps) co_await take(scene, step);
  } catch (...) {
    scene.own_ending = "throws " + text_of(std::current_exception());
    throw;
  }
  scene.own_ending = "value";
  if constexpr (!std::is_void_v<T>) co_return std::make_unique<int>(7);
}

template <class T>
std::string text_of(Outcome<T>& outcome) {
  if (outcome.timed_out()) return "time-out";
  if constexpr (!std::is_void_v<T>) {
    if (outcome.has_value() && *outcome.value() != 7) return "another value";
  }
  return (outcome.has_value() ? "" : "error ") + text_of(outcome.error());
}

template <class T>
asio::awaitable<std::string> await_it(Scene& scene, Await how) {
  co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
  co_await asio::post(asio::use_awaitable);
  if (scene.is_cancelled_before) scene.cancel();
  auto subject = operation<T>(scene);
  auto other = pause(0);
  if (how == Await::try_await) {
    auto outcome = co_await try_await(std::move(subject));
    co_return text_of(outcome);
  } else if (how == Await::with_deadline) {
    auto outcome = co_await with_deadline(std::move(subject), limit);
    co_return text_of(outcome);
  } else if (how == Await::gather_first) {
    auto outcomes = co_await gather(std::move(subject), std::move(other));
    co_return text_of(outcomes.first);
  } else if (how == Await::gather_second) {
    auto outcomes = co_await gather(std::move(other), std::move(subject));
    co_return text_of(outcomes.second);
  }
  if constexpr (std::is_void_v<T>) {
    co_await with_own_cancellation(std::move(subject));
  } else {
    const T value = co_await with_own_cancellation(std::move(subject));
    EXPECT_EQ(*value, 7);
  }
  co_return "value";
}

// Without an executor of its own, so that Asio passes requests on in their turn.
struct OnEnd {
  using cancellation_slot_type = asio::cancellation_slot;
  cancellation_slot_type get_cancellation_slot() const noexcept { return slot; }
  void operator()(const std::exception_ptr& error, std::string text) const {
    ending = error ? "throws " + text_of(error) : std::move(text);
  }

  asio::cancellation_slot slot;
  std::optional<std::string>& ending;
};

// Returns what the caller saw; "throws" is without an outcome. Calls `before` with the
// number of each handler before the event loop runs it, until `before` returns false.
// All of an instant's timers fire before the first of what they call.
std::string run(Scene& scene, Await how, bool is_void, const std::function<bool(int)>& before = nullptr) {
  std::optional<std::string> ending;
  auto& io = scene.world->io;
  auto caller = is_void ? await_it<void>(scene, how) : await_it<std::unique_ptr<int>>(scene, how);
  asio::co_spawn(io, std::move(caller), OnEnd{scene.signal.slot(), ending});
  for (int turn = 0; !ending; ++turn) {
    if (before && !before(turn)) return "unfinished";
    io.restart();
    while (!ending && io.poll_one() == 0) {
      if (!scene.time().advance()) return "hangs";
      while (scene.time().until_next() == 0s) scene.time().advance();
      io.restart();
    }
  }
  EXPECT_EQ(scene.in_flight.use_count(), 1) << "the call ended before the operation";
  EXPECT_EQ(scene.starts, scene.is_cancelled_before ? 0 : 1);
  io.restart();
  io.poll();
  EXPECT_TRUE(io.stopped());
  EXPECT_EQ(scene.time().until_next(), test::seconds_of(1e300)) << "a timer was left behind";
  return *ending;
}

constexpr double never = -1, beforehand = -2;

// The endings of try_await and gather, with_deadline, and with_own_cancellation.
const struct {
  const char* name;
  std::vector<Step> steps;
  double cancelled_at;
  const char *plain, *deadline, *own;
} cases[] = {
    {"value", {wait}, never, "value 1", "value 1", "value 1"},
    {"value at once", {}, never, "value 0", "value 0", "value 0"},
    {"error", {wait, fail}, never, "error boom 1", "error boom 1", "throws boom 1"},
    {"error at once", {fail}, never, "error boom 0", "error boom 0", "throws boom 0"},
    {"abort of its own", {wait, abort}, never, "error aborted 1", "error aborted 1", "throws aborted 1"},
    {"time-out", {wait_long}, never, "value 10", "time-out 2", "value 10"},
    {"value as the limit passes", {until_limit}, never, "value 2", "value 2", "value 2"},
    {"value after it in that turn", {until_past_limit}, never, "value 2", "value 2", "value 2"},
    {"error as the limit passes", {until_limit, fail}, never, "error boom 2", "time-out 2", "throws boom 2"},
    {"time-out ignored", {ignore, wait_long}, never, "value 10", "value 10", "value 10"},
    {"time-out, cleans up", {clean_up}, never, "value 10.5", "value 2.5", "value 10.5"},
    {"time-out, fails", {clean_up, fail}, never, "error boom 10.5", "time-out 2.5", "throws boom 10.5"},
    {"cancelled before", {wait}, beforehand, "throws aborted 0", "throws aborted 0", "throws aborted 0"},
    {"cancelled during", {wait}, 0.5, "throws aborted 0.5", "throws aborted 0.5", "throws aborted 0.5"},
    {"cancelled as it ends", {wait}, 1, "throws aborted 1", "throws aborted 1", "throws aborted 1"},
    {"cancelled, ignored", {ignore, wait}, 0.5, "throws aborted 1", "throws aborted 1", "value 1"},
    {"cancelled, cleans up", {clean_up}, 0.5, "throws aborted 1", "throws aborted 1", "value 1"},
    {"cancelled, fails", {clean_up, fail}, 0.5, "throws aborted 1", "throws aborted 1", "throws boom 1"},
    {"cancelled after the limit", {clean_up}, 2.2, "throws aborted 2.7", "throws aborted 2.2", "value 2.7"},
    {"cancels its caller", {cancel}, never, "throws aborted 0", "throws aborted 0", "value 0"},
    {"cancels it and waits", {cancel, wait}, never, "throws aborted 0", "throws aborted 0", "throws aborted 0"},
};

void for_each_await(const std::function<void(Await, bool)>& check) {
  for (const bool is_void : {false, true}) {
    for (int how = 0; how <= static_cast<int>(Await::with_own_cancellation); ++how) {
      const testing::ScopedTrace trace("", 0, std::string(await_names[how]) + (is_void ? ", void" : ", move-only"));
      check(static_cast<Await>(how), is_void);
    }
  }
}

TEST(Await, HowItEnds) {
  for (const auto& row : cases) {
    for_each_await([&](Await how, bool is_void) {
      Scene scene(row.steps);
      scene.is_cancelled_before = row.cancelled_at == beforehand;
      if (row.cancelled_at > 0) scene.time().at(to_duration(row.cancelled_at), 0, [&] { scene.cancel(); });
      const char* expected = row.plain;
      if (how == Await::with_deadline) expected = row.deadline;
      if (how == Await::with_own_cancellation) expected = row.own;
      const std::string ending = run(scene, how, is_void);
      EXPECT_EQ(fmt::format("{} {:g}", ending, scene.world->seconds()), expected) << row.name;
    });
  }
}

// Whatever the operation is doing in that turn.
TEST(Await, CancelledOrDestroyedInAnyTurn) {
  for (const auto& row : cases) {
    for_each_await([&](Await how, bool is_void) {
      // From when it has started, in the second turn.
      for (int last = 2;; ++last) {
        Scene cancelled(row.steps);
        bool has_come = false;
        const auto cancel = [&](int turn) {
          if (turn == last && (has_come = true)) cancelled.cancel();
          return true;
        };
        const std::string ending = run(cancelled, how, is_void, cancel);
        if (!has_come) break;
        const bool decides = how == Await::with_own_cancellation;
        EXPECT_EQ(ending, decides ? cancelled.own_ending : "throws aborted") << row.name << ", turn " << last;

        Scene destroyed(row.steps);
        run(destroyed, how, is_void, [&](int turn) { return turn != last; });
        destroyed.world.reset();
        destroyed.cancel();  // its host does not know yet
        EXPECT_EQ(destroyed.in_flight.use_count(), 1) << row.name << ", destroyed in turn " << last;
      }
    });
  }
}

TEST(Await, AnyRequestReachesTheOperationAndIsNotForgotten) {
  using Requests = std::vector<std::pair<double, Cancel>>;
  const std::tuple<const char*, Requests, double> rows[] = {
      {"total", {{0.5, Cancel::total}}, 1},
      {"partial", {{0.5, Cancel::partial}}, 1},
      {"none, then partial", {{0.2, Cancel::none}, {0.5, Cancel::partial}}, 1},
      {"terminal, then a weaker one", {{0.5, Cancel::terminal}, {0.7, Cancel::partial}}, 0.7},
      {"a weaker one at once", {{0.5, Cancel::terminal}, {0.5, Cancel::total}}, 1},
      {"total, then terminal", {{0.5, Cancel::total}, {0.7, Cancel::terminal}}, 0.7},
  };
  for (const auto& row : rows) {
    for_each_await([&](Await how, bool is_void) {
      const auto& [name, requests, seconds] = row;
      Scene scene({clean_up});
      for (const auto& [at, type] : requests)
        scene.time().at(to_duration(at), 0, [&scene, wanted = type] { scene.cancel(wanted); });
      const std::string ending = run(scene, how, is_void);
      EXPECT_EQ(ending, how == Await::with_own_cancellation ? scene.own_ending : "throws aborted") << name;
      EXPECT_EQ(scene.world->seconds(), seconds) << name;
    });
  }
}

TEST(Await, GatherStartsTheFirstOneFirst) {
  test::VirtualLoop world;
  std::vector<std::string> notes;
  const auto leg = [&notes](std::string name, std::function<void()> before) -> asio::awaitable<void> {
    notes.push_back(name + " called");
    if (before) before();
    co_await asio::this_coro::executor;
    notes.push_back(name + " waits");
    co_await pause(1);
    notes.push_back(name + " ends");
  };
  const auto both = [&](std::function<void()> before) -> asio::awaitable<void> {
    auto first = leg("first", before), second = leg("second", nullptr);
    co_await gather(std::move(first), std::move(second));
  };
  world.run(both(nullptr));
  EXPECT_THAT(notes,
              ElementsAre("first called", "first waits", "second called", "second waits", "first ends", "second ends"));
  notes.clear();
  EXPECT_THROW(world.run(both([&] { world.cancel(); })), boost::system::system_error);
  EXPECT_THAT(notes, ElementsAre("first called", "first waits"));
}

// Here one timer fires before the next, so that it matters which was set first.
TEST(Await, LimitsAtTheEndAndOfNoTimeAtAll) {
  Scene quick({}), slow({wait}), even({wait});
  EXPECT_TRUE(quick.world->run(with_deadline(operation<void>(quick), 0s)).has_value());
  EXPECT_TRUE(slow.world->run(with_deadline(operation<void>(slow), 0s)).timed_out());
  EXPECT_EQ(slow.world->seconds(), 0);
  EXPECT_TRUE(even.world->run(with_deadline(operation<void>(even), 1s)).has_value());
}

// A host that cleans up after a cancellation and then returns as if nothing had been.
TEST(Await, ExecuteActionOfAPageThatCleansUpIsCancelled) {
  test::VirtualLoop world;
  test::ScriptedPage page;
  Scene unused({});
  bool has_cleaned_up = false;
  page.before = [&](const std::string&) -> asio::awaitable<void> {
    co_await take(unused, clean_up);
    has_cleaned_up = true;
  };
  world.time->at(1s, 0, [&] { world.cancel(); });
  ActionResult press;
  press.action = "key";
  press.key = "Enter";
  EXPECT_THROW(world.run(execute_action(page, press, ImgMeta(1280, 800, 2.0, 0.0))), boost::system::system_error);
  EXPECT_TRUE(has_cleaned_up);
}

TEST(Await, ShadowModeAsksForTheScreenshotThenForTheAgent) {
  test::TestRegistry::instance();
  const test::ScopedEnv log_path("KX_VISION_SHADOW_LOG", "/dev/null");
  test::VirtualLoop world;
  test::ScriptedPage page;
  std::vector<std::string> calls;
  page.before = [&](std::string operation) {
    calls.push_back(std::move(operation));
    return pause(0.1);
  };
  auto agent = [&] {
    calls.push_back("cua_fn");
    return pause(1);
  };
  const auto model = std::make_shared<test::ScriptedModel>();
  model->answer(test::proposal("click", 0.7));
  VisionClient client(model);
  ObserverOptions options({}, "site");
  options.vision(client);
  world.run(shadow_observe_then_cua(page, std::move(agent), options));
  EXPECT_THAT(calls, ElementsAre("screenshot", "cua_fn", "evaluate window.devicePixelRatio"));
}

}  // namespace
}  // namespace vision::runtime
