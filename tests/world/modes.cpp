#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>

#include "tests/world/host.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/fallback.hpp"
#include "vision/wirein/observer.hpp"
#include "vision/wirein/shadow_mode.hpp"

/// Each mode, called as a host calls it.
namespace vision::world {
namespace {

// A host's callable: a visit whose value is told by its number.
class Step {
 public:
  Step(World& world, Mission& mission, std::string_view name, int& runs)
      : world_(world), mission_(mission), name_(name), runs_(runs) {}

  asio::awaitable<boost::json::object> operator()() {
    ++runs_;
    if (name_ == "agent") mission_.agent_started = world_.now();
    Visit visit = world_.visit(mission_, name_);
    if (name_ == "agent") visit.latency = runtime::to_duration(mission_.scenario.agent_seconds);
    return finish(visit, runs_);
  }

  // The wrapper's agent.
  asio::awaitable<boost::json::object> operator()(BrowserPage&, const FlowContext& context, const std::string& reason) {
    const std::string hint = "playwright failed: ";
    std::string expected = hint;
    try {
      std::rethrow_exception(mission_.errors.at(0));
    } catch (const HostError& e) {
      expected += "HostError: " + head(e.what(), 200);
    } catch (...) {
    }
    if (!std::string_view(context.at("context_hint").as_string()).starts_with(expected)) {
      mission_.breaches.push_back("5. the agent is not told of the failure");
    }
    if (mission_.calls.empty() || reason != expected_reason()) {
      mission_.breaches.push_back("5. the agent is told another reason: " + reason);
    }
    return (*this)();
  }

 private:
  std::string expected_reason() const {
    const Call& call = mission_.calls.back();
    return call.reason.empty() ? long_reason() : call.reason;
  }

  asio::awaitable<boost::json::object> finish(Visit visit, int run) {
    co_await world_.perform(visit);
    const bool is_step = name_ == "step";
    if (is_step && run <= mission_.scenario.failing_runs)
      std::rethrow_exception(mission_.thrown(error_of(Fault::page_error)));
    boost::json::object value;
    value["text"] = long_reason();
    value["run"] = run;
    value["of"] = name_;
    co_return value;
  }

  World& world_;
  Mission& mission_;
  std::string_view name_;
  int& runs_;
};

class Probe {
 public:
  Probe(World& world, Mission& mission) : world_(world), mission_(mission) {}
  bool operator()() const {
    if (!mission_.permit.empty())
      mission_.breaches.push_back("7. a proposed " + mission_.permit + " was not carried out");
    ++mission_.probes;
    world_.call(mission_, "should_abort");
    mission_.was_aborted = mission_.probes == mission_.scenario.abort_at;
    return mission_.was_aborted;
  }

 private:
  World& world_;
  Mission& mission_;
};

ObserverOptions observer_options(Mission& mission, VisionClient& client) {
  ObserverOptions options(mission.context, mission.id);
  options.vision(client).run_id("run");
  return options;
}

asio::awaitable<void> run_act_loop(World& world, Mission& mission, VisionClient& client, Page& page) {
  ActLoopOptions options(mission.context, mission.id);
  options.vision(client).run_id("run").max_steps(mission.scenario.max_steps).read_only(mission.scenario.read_only);
  options.should_abort(Probe(world, mission));
  mission.result = co_await act_loop(page, std::move(options));
}

asio::awaitable<void> run_shadow(World& world, Mission& mission, VisionClient& client, Page& page) {
  Step agent(world, mission, "agent", mission.agent_runs);
  auto options = observer_options(mission, client);
  mission.value = co_await shadow_observe_then_cua(page, std::move(agent), std::move(options));
}

asio::awaitable<void> run_observer(Mission& mission, VisionClient& client, Page& page) {
  auto options = observer_options(mission, client);
  options.dom_ground_truth({{"label", "Speichern: ä"}});
  mission.value = co_await observe_only(page, std::move(options));
}

asio::awaitable<void> run_wrapper(World& world, Mission& mission, VisionClient& client, Page& page) {
  Step step(world, mission, "step", mission.step_runs);
  FallbackOptions options(mission.context);
  options.vision(client);
  std::function<asio::awaitable<boost::json::object>(BrowserPage&, const FlowContext&, const std::string&)> agent;
  if (mission.scenario.has_agent) agent = Step(world, mission, "fallback", mission.agent_runs);
  auto result = co_await with_vision_fallback(page, std::move(step), std::move(options), std::move(agent));
  mission.way = static_cast<int>(result.index());
  if (mission.way == 0) mission.value = std::get<0>(result);
  if (mission.way == 1) mission.result = std::get<1>(result);
  if (mission.way == 2) mission.value = std::get<2>(result);
}

asio::awaitable<void> run_ask(Mission& mission, VisionClient& client) {
  auto options = AskOptions().transport_retry(mission.scenario.transport_retry);
  Bytes image(std::string("PNG"));
  mission.result = co_await client.ask(std::move(image), ImgMeta(1280, 800, 2.0, 0.0), mission.context, options);
}

asio::awaitable<void> run_act(Mission& mission, VisionClient& client, Page& page) {
  mission.result = co_await client.act(page, mission.context);
}

asio::awaitable<void> operation_of(World& world, Mission& mission, VisionClient& client, Page& page) {
  switch (mission.scenario.mode) {
    case Mode::act_loop: return run_act_loop(world, mission, client, page);
    case Mode::shadow: return run_shadow(world, mission, client, page);
    case Mode::observer: return run_observer(mission, client, page);
    case Mode::wrapper: return run_wrapper(world, mission, client, page);
    case Mode::act: return run_act(mission, client, page);
    case Mode::ask: return run_ask(mission, client);
  }
  throw std::logic_error("no such mode");
}

}  // namespace

void start(World& world, Mission& mission, Host& host) {
  Page& page = *host.pages.emplace_back(std::make_unique<Page>(world, mission));
  mission.has_started = true;
  mission.started = world.now();
  const auto on_end = [&](std::exception_ptr error) {
    mission.has_ended = true;
    mission.ended = world.now();
    mission.error = error;
    world.trace("end of " + mission.id + (error ? " by an error" : ""));
  };
  asio::co_spawn(world.io, operation_of(world, mission, *host.client, page),
                 asio::bind_cancellation_slot(mission.signal.slot(), on_end));
}

}  // namespace vision::world
