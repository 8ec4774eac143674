#include "tests/world/caller.hpp"

/// Each mode, called as a host should call it: callables have a name, are move-only
/// where that is allowed, and are moved in.
namespace vision::world {
namespace {

using boost::json::object;

asio::awaitable<object> finish(Visit visit, int run) {
  co_await visit.caller.world.perform(visit);
  const bool fails = visit.name == "step" && run <= visit.caller.scenario.with.failing_runs;
  if (fails) std::rethrow_exception(visit.caller.thrown("page_error"_fault, visit.name));
  const object value = {{"text", long_text()}, {"run", run}, {"of", visit.name}};
  co_return value;
}

// A callable of the host. Its value says how often it was run.
asio::awaitable<object> run_host_code(Caller& caller, std::string_view name) {
  Visit visit = caller.world.visit(caller, name);
  if (name == "agent") visit.latency = runtime::to_duration(caller.scenario.with.agent_seconds);
  caller.world.enter(visit);
  return finish(visit, caller.visits[visit.name]);
}

asio::awaitable<void> run_act_loop(Caller& caller, VisionClient& client) {
  ActLoopOptions options(caller.context, caller.id);
  const Details& with = caller.scenario.with;
  options.vision(client).max_steps(with.max_steps).read_only(with.read_only).high_stakes(with.high_stakes);
  options.should_abort([&caller] {
    caller.world.call(caller, "should_abort");
    return caller.was_aborted = caller.visits["should_abort"] == caller.scenario.with.abort_at;
  });
  caller.result = co_await act_loop(caller.page, std::move(options));
}

asio::awaitable<void> run_shadow(Caller& caller, VisionClient& client) {
  auto agent = [&caller, owned = std::make_unique<int>()] { return run_host_code(caller, "agent"); };
  ObserverOptions options(caller.context, caller.id);
  options.vision(client);
  caller.value = co_await shadow_observe_then_cua(caller.page, std::move(agent), std::move(options));
}

asio::awaitable<void> run_observer(Caller& caller, VisionClient& client) {
  ObserverOptions options(caller.context, caller.id);
  options.vision(client).high_stakes(caller.scenario.with.high_stakes).dom_ground_truth({{"label", "Speichern: ä"}});
  caller.value = co_await observe_only(caller.page, std::move(options));
}

asio::awaitable<void> run_wrapper(Caller& caller, VisionClient& client) {
  FallbackOptions options(caller.context);
  options.vision(client).high_stakes(caller.scenario.with.high_stakes);
  auto step = [&caller, owned = std::make_unique<int>()] { return run_host_code(caller, "step"); };
  std::function<asio::awaitable<object>(BrowserPage&, const FlowContext&, const std::string&)> agent;
  if (caller.scenario.with.has_agent) agent = [&caller](auto&&...) { return run_host_code(caller, "fallback"); };
  (void)co_await with_vision_fallback(caller.page, std::move(step), std::move(options), std::move(agent));
}

asio::awaitable<void> run_act(Caller& caller, VisionClient& client) {
  caller.result = co_await client.act(caller.page, caller.context);
}

asio::awaitable<void> run_ask(Caller& caller, VisionClient& client) {
  const Details& with = caller.scenario.with;
  const auto options = AskOptions().transport_retry(with.transport_retry).high_stakes(with.high_stakes);
  Bytes image(std::string("PNG"));
  caller.result = co_await client.ask(std::move(image), ImgMeta(1280, 800, 2.0, 0.0), caller.context, options);
}

asio::awaitable<void> use_mode(Caller& caller, VisionClient& client) {
  const auto guard = caller.world.in_flight;
  co_await asio::this_coro::reset_cancellation_state(asio::enable_total_cancellation());
  caller.has_started = true;  // not before: Asio 1.81 does not survive a cancellation before the first turn
  caller.started = caller.world.now();
  co_await caller.scenario.mode.use(caller, client);
}

}  // namespace

const Mode modes::act_loop{.use = run_act_loop, .longest = 93s, .step_limit = 52s};
const Mode modes::shadow{
    .use = run_shadow, .longest = 28s, .step_limit = 28s, .retries_transport = false, .throws_host_errors = true};
const Mode modes::observer{.use = run_observer, .longest = 28s, .step_limit = 28s, .retries_transport = false};
const Mode modes::wrapper{.use = run_wrapper, .longest = 342s, .throws_host_errors = true, .throws_budget = true};
const Mode modes::act{.use = run_act, .longest = 162s, .throws_host_errors = true, .throws_budget = true};
const Mode modes::ask{.use = run_ask, .longest = 72s, .throws_budget = true};

void start(Caller& caller, VisionClient& client) {
  const auto on_end = [&caller](std::exception_ptr error) {
    caller.has_ended = true;
    caller.ended = caller.world.now();
    caller.error = error;
    caller.world.trace("end of " + caller.id + (error ? " by an error" : ""));
  };
  asio::co_spawn(*caller.world.io, use_mode(caller, client),
                 asio::bind_cancellation_slot(caller.signal.slot(), on_end));
}

}  // namespace vision::world
