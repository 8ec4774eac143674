#include "tests/world/mission.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "vision/client/api_error.hpp"

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

template <class E>
PlannedError planned(const E& error, std::string reason) {
  if constexpr (std::is_base_of_v<std::exception, E>) reason += error.what();
  return {std::make_exception_ptr(error), reason};
}

}  // namespace

PlannedError planned_error(Fault fault) {
  using enum Fault;
  const std::string text = fault == none ? "" : long_text(), bad = "unexpected error: ", lost = "transport error: ";
  switch (fault) {
    case connection_error: return planned(APIConnectionError(text), lost + "APIConnectionError: ");
    case rate_limit: return planned(RateLimitError(text, {429, "", "r"}), lost + "RateLimitError: ");
    case server_error: return planned(InternalServerError(text, {529, "", "r"}), lost + "InternalServerError: ");
    case bad_request: return planned(BadRequestError(text, {400, "", "r"}), bad + "BadRequestError: ");
    case page_error: return planned(HostError(text), bad + "HostError: ");
    case plain_error:
    case call_throws: return planned(std::logic_error(text), bad + "logic_error: ");
    case odd_error:
    case call_throws_odd: return planned(42, bad + "int: ");
    case own_abort: return planned(boost::system::system_error(asio::error::operation_aborted), bad + "system_error: ");
    default: return {};
  }
}

std::string long_text() {
  std::string text = "x";
  for (int i = 0; i < 300; ++i) text += "é";
  return text;
}

Mission::Mission(World& in, std::string name, const Scenario& what)
    : world(in),
      id(std::move(name)),
      scenario(what),
      context({{"workflow_name", id}, {"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}}),
      page(in, *this) {
  if (what.with.unreadable_context) context["attempts"] = "many";
  context_text = boost::json::serialize(context);
}

void Mission::visit_begins(const Visit& visit) {
  const std::string_view name = visit.name;
  ++visits[name];
  expect(name != "agent" || visit.start == started, "3. the agent had to wait for vision");
  expect(!cancelled_at || was_cancelled_in_call || name == "agent", "9. begun after the cancellation: ", name);
  expect(!was_aborted, "7. begun after the abort: ", name);
  if (is_page_action(name)) {
    ++actions;
    expect(permit == name, "7. the page was touched unbidden: ", name);
    permit.clear();
  }
  if (name == "screenshot") unit_start = visit.start;
  const bool is_next_step = name == "should_abort" && visits[name] > 1;
  expect(!is_next_step || visit.start <= last_end + 10s, "8. a step went on after its longest wait");
  if (scenario.mode != Mode::act_loop || (name != "screenshot" && name != "should_abort")) return;
  expect(permit.empty(), "7. not carried out: ", permit);
  expect(visit.start >= settled_at, "8. the page was given no time to settle");
}

void Mission::visit_ended(const Visit& visit) {
  const Duration now = world.now();
  const std::string_view name = visit.name;
  last_end = now;
  if (name == "agent") agent_ended = now;
  if (is_page_action(name)) settled_at = now + (name == "scroll" ? 500ms : 1000ms);
  const bool is_slow = name == "create" && now > visit.start + 20s + patience;
  expect(!is_slow, "8. a request took longer than its time-out");
  expect(!cancelled_at || now <= *cancelled_at + patience, "9. it went on after the cancellation: ", name);
  expect(!in_unit(name) || now <= unit_start + unit_limit() + patience, "8. it went on after the step's limit: ", name);
}

void Mission::answered(const Answer& answer) {
  const std::size_t place = next_answer++;
  const auto is = [&](std::size_t i) { return i < scenario.answers.size() && scenario.answers[i] == answer; };
  const bool is_third = place >= 2 && is(place - 1) && is(place - 2);
  const bool acts = scenario.mode == Mode::wrapper || (scenario.mode == Mode::act_loop && !is_third);
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
  Mission& mission = world_.mission_named(context.at("workflow_name").as_string());
  Call& call = mission.calls.empty() ? mission.calls.emplace_back() : mission.calls.back();
  if (call.fate == Fate::either) call.fate = Fate::answered;
  const bool is_right = call.fate == Fate::answered && result.latency_ms == call.latency_ms();
  mission.expect(is_right && !std::exchange(call.was_hooked, true), "1. the hook ran without its answer");
  return world_.seam(mission, "hook");
}

asio::awaitable<boost::json::value> Host::create(const MessagesRequest& request) {
  const std::string_view text = request.suffix();
  const auto at = text.find("workflow_name: ") + 15;
  Mission& mission = world_.mission_named(text.substr(at, text.find('\\', at) - at));
  Call& call = call_of(mission, request);
  const Visit visit = world_.visit(mission, "create");
  try {
    world_.enter(visit);
  } catch (...) {
    give_up(mission, call, visit.fault);
    throw;
  }
  return respond(visit, static_cast<std::size_t>(&call - mission.calls.data()));
}

Call& Host::call_of(Mission& mission, const MessagesRequest& request) {
  const Duration now = world_.now();
  const bool is_retry = !mission.calls.empty() && mission.calls.back().fate == Fate::retrying;
  Call& call = is_retry ? mission.calls.back() : mission.calls.emplace_back();
  // Between a call's gate and its request others may end.
  const bool is_allowed = is_retry || client.metrics.call_count < budget_ || now == last_end_;
  mission.expect(is_allowed, "1. a request beyond the budget");
  mission.expect(!is_retry || now == call.end + 1500ms, "8. the pause before a retry");
  mission.expect(++call.requests <= 2, "1. a call made more than two requests");
  if (!is_retry) call.start = now;
  call.model = mission.scenario.with.high_stakes ? "heavy-model" : "light-model";
  mission.expect(request.model() == call.model, "1. another model was asked");
  call.request_start = now;
  call.fate = Fate::open;
  return call;
}

asio::awaitable<boost::json::value> Host::respond(Visit visit, std::size_t place) {
  Mission& mission = visit.mission;
  try {
    co_await world_.perform(visit);
  } catch (...) {
    give_up(mission, mission.calls[place], mission.threw(std::current_exception()) ? visit.fault : Fault::none);
    throw;
  }
  Call& call = mission.calls[place];
  const auto& answers = mission.scenario.answers;
  call.answer = mission.next_answer < answers.size() ? answers[mission.next_answer] : Answer{"escalate_to_cua"};
  const std::string& verb = call.answer.verb;
  call.reason = verb == "broken"            ? "unexpected error: InvalidResponse: the response has no content"
                : verb == "no_tool"         ? "model did not return propose_action tool call"
                : verb == "declare_failure" ? long_text()
                                            : "";
  call.end = last_end_ = world_.now();
  const Duration rest = mission.unit_start + mission.unit_limit() - call.end;
  call.fate = verb == "broken" ? Fate::failed : Fate::answered;
  if (rest == 0s) call.fate = Fate::either;
  if (rest < 0s || mission.cancelled_at) call.fate = Fate::dropped;
  if (call.fate != Fate::dropped) mission.answered(call.answer);
  co_return boost::json::parse(response_to(call.answer));
}

// A request that failed, or that was ended from outside.
void Host::give_up(Mission& mission, Call& call, Fault fault) {
  const Mode mode = mission.scenario.mode;
  call.end = last_end_ = world_.now();
  const bool unit_ends = call.end >= mission.unit_start + mission.unit_limit();
  const bool is_transport = fault >= Fault::connection_error && fault <= Fault::server_error;
  const bool may_retry = mode != Mode::shadow && mode != Mode::observer && mission.scenario.with.transport_retry;
  call.fate = Fate::dropped;
  if (mission.cancelled_at) return;
  call.reason = fault == Fault::none ? "vision timeout after 20.0s" : planned_error(fault).reason;
  if (fault == Fault::none && call.end != call.request_start + 20s) {
    mission.expect(unit_ends, "8. a request was ended before its time-out");
  } else if (unit_ends) {
    call.fate = Fate::either;
  } else if (is_transport && may_retry && call.requests == 1) {
    call.fate = Fate::retrying;
  } else {
    call.fate = fault == Fault::none ? Fate::timed_out : Fate::failed;
  }
}

}  // namespace vision::world
