#include "tests/soak/lane.hpp"

#include <random>

#include "tests/support/scripted.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::soak {

namespace {

using test::HostError;

enum class Mode { act_loop, shadow, background, fallback };

struct Caller {
  std::string id;
  Mode mode = Mode::act_loop;
  FlowContext context;
  std::shared_ptr<test::ScriptedPage> page = std::make_shared<test::ScriptedPage>();
  asio::cancellation_signal signal;
  bool was_cancelled = false, has_ended = false;
};

class Lane : public std::enable_shared_from_this<Lane> {
 public:
  Lane(asio::any_io_executor strand, std::shared_ptr<MessagesClient> model, std::uint64_t number, Tally& tally)
      : strand_(std::move(strand)), rng_(static_cast<unsigned>(number * 2654435761u + 1)), tally_(tally) {
    auto options = VisionClientOptions().call_budget(chance(20) ? 1 + static_cast<std::int64_t>(random(3)) : 50);
    if (chance(50)) options.on_action([this](const ActionResult&, const FlowContext&) { return hook(); });
    client_ = std::make_unique<VisionClient>(std::move(model), options);
    for (Caller& caller : callers_) {
      caller.id = std::to_string(number) + "-" + std::to_string(&caller - callers_.data());
      caller.mode = static_cast<Mode>(random(4));
      caller.context = {{"workflow_name", caller.id}, {"phase", chance(30) ? "login" : "post"}};
      caller.page->before = [this, mode = caller.mode](std::string operation) { return visit(mode, operation); };
    }
  }

  ~Lane() {
    const std::lock_guard lock(tally_.mutex);
    ++tally_.lanes;
    tally_.changed.notify_all();
  }

  // On the strand.
  void start() {
    for (Caller& caller : callers_) {
      const auto self = shared_from_this();
      const auto on_end = [self, &caller](std::exception_ptr error) { self->end(caller, error); };
      if (caller.mode == Mode::background) {
        const std::weak_ptr<BrowserPage> page = caller.page;
        if (chance(20)) caller.page.reset();
        observe_in_background(strand_, page, observer_options(caller), [on_end](std::exception_ptr error, auto) {
          on_end(error);
          throw HostError("the end is broken");
        });
        continue;
      }
      asio::co_spawn(strand_, run(self, caller), asio::bind_cancellation_slot(caller.signal.slot(), on_end));
      if (chance(30)) asio::co_spawn(strand_, cancel(self, caller), [](std::exception_ptr) {});
    }
  }

 private:
  ObserverOptions observer_options(const Caller& caller) {
    ObserverOptions options(caller.context, "seen");
    options.vision(*client_).run_id(caller.id);
    return options;
  }

  bool chance(int percent) { return random(100) < static_cast<unsigned>(percent); }
  std::uint64_t random(std::uint64_t bound) { return rng_() % bound; }

  asio::awaitable<void> pause(std::uint64_t most_ms) {
    co_await runtime::sleep_for(std::chrono::microseconds(random(most_ms * 1000)));
  }

  // What every operation of a page does. A screenshot that hangs is ended by the mode's
  // time limit; the wrapper's second one has none.
  asio::awaitable<void> visit(Mode mode, std::string operation) {
    co_await pause(200);
    if (chance(3)) throw HostError("the page is broken");
    if (chance(1)) throw 42;
    if (operation == "screenshot" && mode != Mode::fallback && chance(2)) {
      co_await runtime::sleep_for(std::chrono::hours(1));
    }
  }

  asio::awaitable<void> hook() {
    if (chance(50)) co_await pause(50);
    if (chance(10)) throw HostError("the hook is broken");
  }

  // The host's scripted step, or its computer-use agent.
  asio::awaitable<boost::json::object> step(std::string id, int failing_percent) {
    co_await pause(4000);
    if (chance(failing_percent)) throw HostError("the host's step failed");
    const boost::json::object result = {{"text", id}};
    co_return result;
  }

  // Coroutines, so that their frames keep the lane.
  asio::awaitable<void> cancel(std::shared_ptr<Lane>, Caller& caller) {
    co_await pause(20'000);
    if (caller.has_ended) co_return;
    caller.was_cancelled = true;
    caller.signal.emit(asio::cancellation_type::terminal);
  }

  asio::awaitable<void> run(std::shared_ptr<Lane>, Caller& caller) {
    if (caller.mode == Mode::act_loop) co_return co_await act(caller);
    if (caller.mode == Mode::fallback) co_return co_await fall_back(caller);
    auto agent = [this, &caller] { return step(caller.id, 20); };
    auto options = observer_options(caller);
    const auto result = co_await shadow_observe_then_cua(*caller.page, std::move(agent), std::move(options));
    if (result.at("text") != boost::json::value(caller.id)) throw std::logic_error("the result of another caller");
  }

  asio::awaitable<void> act(Caller& caller) {
    ActLoopOptions options(caller.context, "act");
    options.vision(*client_).run_id(caller.id).max_steps(1 + static_cast<std::int64_t>(random(6)));
    options.read_only(chance(10)).mission_prompt("Open the share dialog.");
    options.should_abort([this] {
      if (chance(5)) throw HostError("the probe is broken");
      return chance(3);
    });
    const ActionResult verdict = co_await act_loop(*caller.page, std::move(options));
    if (!ActionVerb::is_verdict(verdict.action)) throw std::logic_error("the loop ended with " + verdict.action);
  }

  asio::awaitable<void> fall_back(Caller& caller) {
    FallbackOptions options(caller.context);
    options.vision(*client_);
    auto primary = [this, &caller] { return step(caller.id, 60); };
    std::function<asio::awaitable<boost::json::object>(BrowserPage&, const FlowContext&, const std::string&)> agent;
    if (chance(50)) {
      agent = [this, &caller](BrowserPage&, const FlowContext&, const std::string&) { return step(caller.id, 10); };
    }
    (void)co_await with_vision_fallback(*caller.page, std::move(primary), std::move(options), std::move(agent));
  }

  void end(Caller& caller, const std::exception_ptr& error) {
    const std::string kind = error ? text::describe(error).kind : "";
    const bool runs_host_code = caller.mode == Mode::shadow || caller.mode == Mode::fallback;
    const bool is_documented = !error || (runs_host_code && (kind == "HostError" || kind == "int")) ||
                               (caller.mode == Mode::fallback && kind == "BudgetExceeded");
    const bool is_cancelled = caller.was_cancelled && kind == "system_error";
    const bool is_second = std::exchange(caller.has_ended, true);
    const std::lock_guard lock(tally_.mutex);
    ++tally_.callers;
    if (!is_cancelled && caller.mode != Mode::fallback) ++tally_.records;
    if (is_second) tally_.breaches.push_back(caller.id + " ended twice");
    if (!is_documented && !is_cancelled) {
      tally_.breaches.push_back(caller.id + " in mode " + std::to_string(static_cast<int>(caller.mode)) +
                                " ended with " + text::exception_text(error));
    }
  }

  asio::any_io_executor strand_;
  std::minstd_rand rng_;
  Tally& tally_;
  std::unique_ptr<VisionClient> client_;
  std::array<Caller, lane_size> callers_;
};

}  // namespace

void start_lane(const asio::any_io_executor& strand, std::shared_ptr<MessagesClient> model, std::uint64_t number,
                Tally& tally) {
  asio::post(strand, [lane = std::make_shared<Lane>(strand, std::move(model), number, tally)] { lane->start(); });
}

}  // namespace vision::soak
