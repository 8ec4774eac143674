#include "tests/world/caller.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "vision/text/internal/error_text.hpp"

namespace vision::world {
namespace {

using Fate = Call::Fate;

std::string response_to(const Answer& answer) {
  if (answer.verb == "broken") return "{}";
  if (answer.verb == "no_tool") return R"({"usage": {"input_tokens": 1500, "output_tokens": 200}, "content": []})";
  return test::tool_call(R"({"action": ")" + answer.verb + R"(", "reason": ")" + long_text() + R"(", "confidence": )" +
                         std::to_string(answer.confidence) + answer.members + "}");
}

bool is_page_action(std::string_view verb) {
  return verb == "click" || verb == "type" || verb == "key" || verb == "scroll";
}

}  // namespace

std::string long_text() {
  std::string text = "x";
  for (int i = 0; i < 300; ++i) text += "é";
  return text;
}

Caller::Caller(World& in, std::string name, const Scenario& what)
    : world(in),
      id(std::move(name)),
      scenario(what),
      context({{"workflow_name", id}, {"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}}) {
  page.before = [this](const std::string& operation) {
    return world.operation(*this, operation.substr(0, operation.find(' ')));
  };
  page.on_call = [this](const char* called) { world.call(*this, called); };
  if (what.with.unreadable_context) context["attempts"] = "many";
  context_text = boost::json::serialize(context);
}

void Caller::visit_begins(const Visit& visit) {
  const std::string& name = visit.name;
  ++visits[name];
  expect(name != "agent" || visit.start == started, "3. the agent had to wait for vision");
  expect(!cancelled_at || was_cancelled_in_call || name == "agent", "9. begun after the cancellation: ", name);
  expect(!was_aborted, "7. begun after the abort: ", name);
  if (is_page_action(name)) {
    ++actions;
    expect(permit == name, "7. the page was touched unbidden: ", name);
    permit.clear();
  }
  expect(name != "fallback" || permit.empty(), "5. the agent ran in place of the action: ", permit);
  if (name == "screenshot") step_start = visit.start;
  const bool is_next_step = name == "should_abort" && visits[name] > 1;
  expect(!is_next_step || visit.start <= last_end + 10s, "8. a step went on after its longest wait");
  if (scenario.mode != modes::act_loop || (name != "screenshot" && name != "should_abort")) return;
  expect(permit.empty(), "7. not carried out: ", permit);
  expect(visit.start >= settled_at, "8. the page was given no time to settle");
}

void Caller::visit_ended(const Visit& visit) {
  const Duration now = world.now();
  const std::string& name = visit.name;
  last_end = now;
  if (name == "agent") agent_ended = now;
  if (is_page_action(name)) settled_at = now + (name == "scroll" ? 500ms : 1000ms);
  const bool is_slow = name == "create" && now > visit.start + 20s + patience;
  expect(!is_slow, "8. a request took longer than its time-out");
  expect(!cancelled_at || now <= *cancelled_at + patience, "9. it went on after the cancellation: ", name);
  expect(!in_step_limit(name) || now <= step_start + scenario.mode.step_limit + patience,
         "8. it went on after the step's limit: ", name);
}

void Caller::answered(const Answer& answer) {
  const std::size_t number = next_answer++;
  const auto is = [&](std::size_t i) { return i < scenario.answers.size() && scenario.answers[i] == answer; };
  const bool is_third = number >= 2 && is(number - 1) && is(number - 2);
  const bool acts = scenario.mode == modes::wrapper || (scenario.mode == modes::act_loop && !is_third);
  const bool may_act = acts && is_page_action(answer.verb) && answer.has_all_needs && answer.confidence >= 0.6;
  permit = may_act && !scenario.with.read_only ? answer.verb : "";
}

Host::Host(World& world, std::int64_t budget, bool hook)
    : has_hook(hook),
      client(
          std::shared_ptr<MessagesClient>(std::shared_ptr<void>(), this),
          VisionClientOptions().call_budget(budget).on_action(
              hook ? OnAction([this](const auto& result, const auto& context) { return this->hook(result, context); })
                   : nullptr)),
      world_(world),
      budget_(budget) {}

asio::awaitable<void> Host::hook(const ActionResult& result, const FlowContext& context) {
  Caller& caller = world_.caller_named(context.at("workflow_name").as_string());
  Call& call = caller.calls.empty() ? caller.calls.emplace_back() : caller.calls.back();
  if (call.fate == Fate::perhaps_recorded) call.fate = Fate::answered;
  const bool is_right = call.fate == Fate::answered && result.latency_ms == call.latency_ms();
  caller.expect(is_right && !std::exchange(call.was_hooked, true), "1. the hook ran without its answer");
  return world_.operation(caller, "hook");
}

asio::awaitable<boost::json::value> Host::create(const MessagesRequest& request) {
  const std::string_view text = request.suffix();
  const auto at = text.find("workflow_name: ") + 15;
  Caller& caller = world_.caller_named(text.substr(at, text.find('\\', at) - at));
  Call& call = call_of(caller, request);
  const Visit visit = world_.visit(caller, "create");
  try {
    world_.enter(visit);
  } catch (...) {
    give_up(caller, call, visit.fault);
    throw;
  }
  return respond(visit, call);
}

Call& Host::call_of(Caller& caller, const MessagesRequest& request) {
  const Duration now = world_.now();
  const bool is_retry = !caller.calls.empty() && caller.calls.back().fate == Fate::retrying;
  Call& call = is_retry ? caller.calls.back() : caller.calls.emplace_back();
  // Other calls may end between a call's budget check and its request.
  const bool is_allowed = is_retry || client.metrics.call_count < budget_ || now == last_end_;
  caller.expect(is_allowed, "1. a request beyond the budget");
  caller.expect(!is_retry || now == call.end + 1500ms, "8. the pause before a retry");
  caller.expect(++call.requests <= 2, "1. a call made more than two requests");
  if (!is_retry) call.start = now;
  call.model = caller.scenario.with.high_stakes ? "heavy-model" : "light-model";
  caller.expect(request.model() == call.model, "1. another model was asked");
  call.request_start = now;
  call.fate = Fate::open;
  return call;
}

asio::awaitable<boost::json::value> Host::respond(Visit visit, Call& call) {
  Caller& caller = visit.caller;
  try {
    co_await world_.perform(visit);
  } catch (...) {
    give_up(caller, call, caller.threw(std::current_exception()) ? visit.fault : "none"_fault);
    throw;
  }
  const auto& answers = caller.scenario.answers;
  call.answer = caller.next_answer < answers.size() ? answers[caller.next_answer] : Answer{"escalate_to_cua"};
  const std::string& verb = call.answer.verb;
  call.reason = verb == "broken"            ? "unexpected error: InvalidResponse: the response has no content"
                : verb == "no_tool"         ? "model did not return propose_action tool call"
                : verb == "declare_failure" ? long_text()
                                            : "";
  call.end = last_end_ = world_.now();
  const Duration rest = caller.step_start + caller.scenario.mode.step_limit - call.end;
  call.fate = verb == "broken" ? Fate::failed : Fate::answered;
  if (rest == 0s) call.fate = Fate::perhaps_recorded;
  if (rest < 0s || caller.cancelled_at) call.fate = Fate::dropped;
  if (call.fate != Fate::dropped) caller.answered(call.answer);
  co_return boost::json::parse(response_to(call.answer));
}

// For a request that failed, or was ended from outside.
void Host::give_up(Caller& caller, Call& call, const Fault& fault) {
  const Scenario& scenario = caller.scenario;
  const bool is_ended = fault == "none"_fault;
  const bool may_retry = fault.is_transport_error && scenario.mode.retries_transport && scenario.with.transport_retry;
  call.end = last_end_ = world_.now();
  call.fate = Fate::dropped;
  if (caller.cancelled_at) return;
  call.reason = is_ended ? "vision timeout after 20.0s"
                         : (fault.is_transport_error ? "transport error: " : "unexpected error: ") +
                               text::full_exception_text(fault.make_error(long_text()));
  const bool step_ends = call.end >= caller.step_start + scenario.mode.step_limit;
  if (is_ended && call.end != call.request_start + 20s) {
    caller.expect(step_ends, "8. a request was ended before its time-out");
  } else if (step_ends) {
    call.fate = Fate::perhaps_recorded;
  } else {
    call.fate = may_retry && call.requests == 1 ? Fate::retrying : Fate::failed;
  }
}

}  // namespace vision::world
