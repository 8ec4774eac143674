#include "tests/world/mission.hpp"

/// Each mode, called as a host should: callables have a name, own something where a
/// copy is not needed, and are moved in.
namespace vision::world {
namespace {

using boost::json::object;

asio::awaitable<object> finish(Visit visit, int run) {
  co_await visit.mission.world.perform(visit);
  const bool fails = visit.name == "step" && run <= visit.mission.scenario.with.failing_runs;
  if (fails) std::rethrow_exception(visit.mission.thrown(Fault::page_error, visit.name));
  const object value = {{"text", long_text()}, {"run", run}, {"of", visit.name}};
  co_return value;
}

// A host's callable: a visit whose value is told by its number.
asio::awaitable<object> run(Mission& mission, std::string_view name) {
  Visit visit = mission.world.visit(mission, name);
  if (name == "agent") visit.latency = runtime::to_duration(mission.scenario.with.agent_seconds);
  mission.world.enter(visit);
  return finish(visit, mission.visits[name]);
}

asio::awaitable<void> run_act_loop(Mission& mission, VisionClient& client) {
  ActLoopOptions options(mission.context, mission.id);
  const Details& with = mission.scenario.with;
  options.vision(client).max_steps(with.max_steps).read_only(with.read_only).high_stakes(with.high_stakes);
  options.should_abort([&mission] {
    mission.world.call(mission, "should_abort");
    return mission.was_aborted = mission.visits["should_abort"] == mission.scenario.with.abort_at;
  });
  mission.result = co_await act_loop(mission.page, std::move(options));
}

asio::awaitable<void> run_shadow(Mission& mission, VisionClient& client) {
  auto agent = [&mission, owned = std::make_unique<int>()] { return run(mission, "agent"); };
  ObserverOptions options(mission.context, mission.id);
  options.vision(client);
  try {
    mission.value = co_await shadow_observe_then_cua(mission.page, std::move(agent), std::move(options));
  } catch (const HostError& error) {
    mission.expect(error._kx_cua_origin && is_cua_origin(error), "3. the agent's error is not marked");
    throw;
  }
}

asio::awaitable<void> run_observer(Mission& mission, VisionClient& client) {
  ObserverOptions options(mission.context, mission.id);
  options.vision(client).high_stakes(mission.scenario.with.high_stakes).dom_ground_truth({{"label", "Speichern: ä"}});
  mission.value = co_await observe_only(mission.page, std::move(options));
}

asio::awaitable<void> run_wrapper(Mission& mission, VisionClient& client) {
  FallbackOptions options(mission.context);
  options.vision(client).high_stakes(mission.scenario.with.high_stakes);
  auto step = [&mission, owned = std::make_unique<int>()] { return run(mission, "step"); };
  std::function<asio::awaitable<object>(BrowserPage&, const FlowContext&, const std::string&)> agent;
  const auto fallback = [&mission](BrowserPage&, const FlowContext& context, const std::string& reason) {
    const std::string_view hint = context.at("context_hint").as_string();
    mission.expect(hint.starts_with("playwright failed: "), "5. the agent is not told of the failure");
    const std::string told = mission.calls.empty() ? "" : mission.calls.back().reason;
    mission.expect(reason == (told.empty() ? long_text() : told), "5. the agent is told another reason");
    return run(mission, "fallback");
  };
  if (mission.scenario.with.has_agent) agent = fallback;
  auto result = co_await with_vision_fallback(mission.page, std::move(step), std::move(options), std::move(agent));
  const bool is_step = result.way() == FallbackWay::step || result.is_rescued();
  if (is_step) mission.value = result.step();
  if (result.way() == FallbackWay::verdict) mission.result = result.verdict();
  if (result.way() == FallbackWay::agent) mission.value = result.agent();
  mission.value["way"] = is_step ? 0 : result.way() == FallbackWay::verdict ? 1 : 2;
}

asio::awaitable<void> run_act(Mission& mission, VisionClient& client) {
  mission.result = co_await client.act(mission.page, mission.context);
}

asio::awaitable<void> run_ask(Mission& mission, VisionClient& client) {
  const Details& with = mission.scenario.with;
  const auto options = AskOptions().transport_retry(with.transport_retry).high_stakes(with.high_stakes);
  Bytes image(std::string("PNG"));
  mission.result = co_await client.ask(std::move(image), ImgMeta(1280, 800, 2.0, 0.0), mission.context, options);
}

asio::awaitable<void> lead(Mission& mission, VisionClient& client) {
  constexpr decltype(&run_act) operations[] = {run_act_loop, run_shadow, run_observer, run_wrapper, run_act, run_ask};
  const auto guard = mission.world.in_flight;
  co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
  mission.has_started = true;  // not before: Asio 1.81 does not survive a cancellation before the first turn
  mission.started = mission.world.now();
  co_await operations[static_cast<std::size_t>(mission.scenario.mode)](mission, client);
}

}  // namespace

void start(Mission& mission, VisionClient& client) {
  const auto on_end = [&mission](std::exception_ptr error) {
    mission.has_ended = true;
    mission.ended = mission.world.now();
    mission.error = error;
    mission.world.trace("end of " + mission.id + (error ? " by an error" : ""));
  };
  asio::co_spawn(*mission.world.io, lead(mission, client), asio::bind_cancellation_slot(mission.signal.slot(), on_end));
}

}  // namespace vision::world
