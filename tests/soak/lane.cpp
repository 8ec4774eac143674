#include "tests/soak/lane.hpp"

#include <random>

#include "tests/support/scripted.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::soak {

namespace {

using test::HostError;

struct Mission : Ended {
  std::shared_ptr<test::ScriptedPage> page = std::make_shared<test::ScriptedPage>();
  asio::cancellation_signal signal;
  bool was_cancelled = false;
  FlowContext context;
};

// Counts the requests, and those that were answered.
class CountingModel : public MessagesClient {
 public:
  CountingModel(std::shared_ptr<MessagesClient> model, LaneReport& report)
      : model_(std::move(model)), report_(report) {}
  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override {
    ++report_.requests;
    auto answer = co_await model_->create(request);
    ++report_.answers;
    co_return answer;
  }

 private:
  const std::shared_ptr<MessagesClient> model_;
  LaneReport& report_;
};

ObserverOptions observer_options(VisionClient& client, const FlowContext& context, const std::string& id) {
  ObserverOptions options(context, "seen");
  options.vision(client).run_id(id);
  return options;
}

class Lane : public std::enable_shared_from_this<Lane> {
 public:
  Lane(asio::any_io_executor strand, std::shared_ptr<MessagesClient> model, std::uint64_t number, Reports& reports)
      : strand_(std::move(strand)), rng_(static_cast<unsigned>(number * 2654435761u + 1)), reports_(reports) {
    auto options = VisionClientOptions().call_budget(chance(20) ? 1 + static_cast<std::int64_t>(random(3)) : 50);
    if (chance(50)) options.on_action([this](const ActionResult&, const FlowContext&) { return hook(); });
    client_ = std::make_unique<VisionClient>(std::make_shared<CountingModel>(std::move(model), report_), options);
    for (std::size_t i = 0; i < lane_size; ++i) {
      missions_[i] = std::make_unique<Mission>();
      Mission& mission = *missions_[i];
      mission.id = "m" + std::to_string(number * lane_size + i);
      mission.mode = static_cast<Mode>(random(5));
      mission.context = {{"workflow_name", mission.id}, {"phase", chance(30) ? "login" : "post"}};
      mission.page->before = [this, mode = mission.mode](std::string operation) { return visit(mode, operation); };
    }
  }

  ~Lane() {
    for (const auto& mission : missions_) report_.missions.push_back(*mission);
    report_.ledger = client_->metrics;
    const std::lock_guard lock(reports_.mutex);
    reports_.lanes.push_back(std::move(report_));
    reports_.changed.notify_all();
  }

  // On the strand.
  void start() {
    for (const auto& each : missions_) {
      Mission& mission = *each;
      const auto self = shared_from_this();
      const auto on_end = [self, &mission](std::exception_ptr error) { self->end(mission, error); };
      if (mission.mode == Mode::background) {
        const std::weak_ptr<BrowserPage> page = mission.page;
        if (chance(20)) mission.page.reset();
        observe_in_background(strand_, page, observer_options(*client_, mission.context, mission.id),
                              [on_end](std::exception_ptr error, boost::json::object) {
                                on_end(error);
                                throw HostError("the end is broken");
                              });
        continue;
      }
      asio::co_spawn(strand_, run(self, mission), asio::bind_cancellation_slot(mission.signal.slot(), on_end));
      if (chance(30)) asio::co_spawn(strand_, cancel(self, mission), [](std::exception_ptr) {});
    }
  }

 private:
  bool chance(int percent) { return random(100) < static_cast<unsigned>(percent); }
  std::uint64_t random(std::uint64_t bound) { return rng_() % bound; }

  asio::awaitable<void> pause(std::uint64_t most_ms) {
    co_await runtime::sleep_for(std::chrono::microseconds(random(most_ms * 1000)));
  }

  // Before each operation of a page. One that hangs ends by a limit, which the
  // wrapper's second screenshot does not have.
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
    boost::json::object result;
    result["text"] = id;
    co_return result;
  }

  // Coroutines, so that their frames keep the lane.
  asio::awaitable<void> cancel(std::shared_ptr<Lane>, Mission& mission) {
    co_await pause(20'000);
    if (mission.end != End::none) co_return;
    mission.was_cancelled = true;
    mission.signal.emit(asio::cancellation_type::terminal);
  }

  asio::awaitable<void> run(std::shared_ptr<Lane>, Mission& mission) {
    if (mission.mode == Mode::act_loop) co_return co_await act(mission);
    if (mission.mode == Mode::fallback) co_return co_await fall_back(mission);
    auto options = observer_options(*client_, mission.context, mission.id);
    boost::json::value given;
    if (mission.mode == Mode::shadow) {
      auto agent = [this, &mission] { return step(mission.id, 20); };
      const auto result = co_await shadow_observe_then_cua(*mission.page, std::move(agent), std::move(options));
      given = result.at("text");
    } else {
      const auto record = co_await observe_only(*mission.page, std::move(options));
      given = record.at("run_id");
    }
    if (given != boost::json::value(mission.id)) throw std::logic_error("what belongs to another mission");
  }

  asio::awaitable<void> act(Mission& mission) {
    ActLoopOptions options(mission.context, "act");
    options.vision(*client_).run_id(mission.id).max_steps(1 + static_cast<std::int64_t>(random(6)));
    options.read_only(chance(10)).mission_prompt("Open the share dialog.");
    options.should_abort([this] {
      if (chance(5)) throw HostError("the probe is broken");
      return chance(3);
    });
    const ActionResult verdict = co_await act_loop(*mission.page, std::move(options));
    if (!ActionVerb::is_verdict(verdict.action)) throw std::logic_error("the loop ended with " + verdict.action);
  }

  asio::awaitable<void> fall_back(Mission& mission) {
    FallbackOptions options(mission.context);
    options.vision(*client_);
    auto primary = [this, &mission] { return step(mission.id, 60); };
    std::function<asio::awaitable<boost::json::object>(BrowserPage&, const FlowContext&, const std::string&)> agent;
    if (chance(50)) {
      agent = [this, &mission](BrowserPage&, const FlowContext&, const std::string&) { return step(mission.id, 10); };
    }
    (void)co_await with_vision_fallback(*mission.page, std::move(primary), std::move(options), std::move(agent));
  }

  void end(Mission& mission, const std::exception_ptr& error) {
    const std::string kind = error ? text::describe(error).kind : "";
    const bool runs_host_code = mission.mode == Mode::shadow || mission.mode == Mode::fallback;
    const bool is_documented = !error || (runs_host_code && (kind == "HostError" || kind == "int")) ||
                               (mission.mode == Mode::fallback && kind == "BudgetExceeded");
    const bool is_cancelled = mission.was_cancelled && kind == "system_error";
    const bool is_second = mission.end != End::none;
    mission.end = is_second ? End::other : is_documented ? End::documented : is_cancelled ? End::cancelled : End::other;
    if (error) mission.error = text::exception_text(error);
  }

  asio::any_io_executor strand_;
  std::minstd_rand rng_;
  Reports& reports_;
  LaneReport report_;
  std::unique_ptr<VisionClient> client_;
  std::array<std::unique_ptr<Mission>, lane_size> missions_;
};

}  // namespace

void start_lane(const asio::any_io_executor& strand, std::shared_ptr<MessagesClient> model, std::uint64_t number,
                Reports& reports) {
  asio::post(strand, [lane = std::make_shared<Lane>(strand, std::move(model), number, reports)] { lane->start(); });
}

}  // namespace vision::soak
