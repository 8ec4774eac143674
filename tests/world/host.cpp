#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/support/scripted.hpp"
#include "tests/world/mission.hpp"

namespace vision::world {
namespace {

using std::chrono::seconds;
using Fate = Call::Fate;

std::shared_ptr<MessagesClient> borrowed(MessagesClient& client) {
  return std::shared_ptr<MessagesClient>(std::shared_ptr<void>(), &client);
}

std::string response_to(const Answer& answer) {
  if (answer.verb == "broken") return "{}";
  if (answer.verb == "no_tool") return R"({"usage": {"input_tokens": 1500, "output_tokens": 200}, "content": []})";
  return test::tool_call(R"({"action": ")" + answer.verb + R"(", "reason": ")" + long_text() + R"(", "confidence": )" +
                         std::to_string(answer.confidence) + answer.members + "}");
}

}  // namespace

Host::Host(World& world, std::int64_t budget, bool hook)
    : has_hook(hook),
      client(
          borrowed(*this),
          VisionClientOptions().call_budget(budget).on_action(
              hook ? OnAction([this](const auto& result, const auto& context) { return this->hook(result, context); })
                   : nullptr)),
      world_(world),
      budget_(budget) {}

asio::awaitable<void> Host::hook(const ActionResult& result, const FlowContext& context) {
  Mission& mission = world_.mission_named(context.at("workflow_name").as_string());
  // The context that the library shows is the caller's with a few entries of its own.
  auto rest = context;
  for (const char* own : {"viewport", "context_hint"}) rest.erase(own);
  if (mission.scenario.mode == Mode::act_loop) rest["last_action"] = "the caller's";
  mission.expect(boost::json::serialize(rest) == mission.context_text, "6. the model was shown another context");

  const bool is_first = !mission.calls.empty() && !mission.calls.back().was_hooked;
  mission.expect(is_first, "1. the hook ran without an answer");
  if (is_first) {
    Call& call = mission.calls.back();
    call.was_hooked = true;
    if (call.fate == Fate::either) call.fate = Fate::answered;
    mission.expect(call.fate == Fate::answered, "1. the hook ran on a call without an answer");
    mission.expect(result.latency_ms == call.latency_ms(), "1. a result with a wrong latency");
  }
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
  // Between a call's gate and its request others may end.
  const bool is_allowed = is_retry || client.metrics.call_count < budget_ || now == last_end_;
  mission.expect(is_allowed, "1. a request beyond the budget");
  Call& call = is_retry ? mission.calls.back() : mission.calls.emplace_back();
  if (is_retry) {
    mission.expect(now == call.end + std::chrono::milliseconds(1500), "8. the pause before a retry");
  } else {
    call.model = request.model();
    call.start = now;
  }
  mission.expect(++call.requests <= 2, "1. a call made more than two requests");
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
  co_return answer(mission, mission.calls[place]);
}

boost::json::value Host::answer(Mission& mission, Call& call) {
  call.end = last_end_ = world_.now();
  call.reason.clear();
  const auto limit = mission.unit_limit();
  const Duration in_unit = call.end - mission.unit_start;
  call.fate = mission.cancelled_at || (limit && in_unit > *limit) ? Fate::dropped
              : limit && in_unit == *limit                        ? Fate::either
                                                                  : Fate::answered;
  const auto& answers = mission.scenario.answers;
  call.answer = mission.next_answer < answers.size() ? answers[mission.next_answer] : Answer{"escalate_to_cua"};
  if (call.fate != Fate::dropped) mission.answered(call.answer);
  if (call.answer.verb == "broken") {
    call.reason = "unexpected error: InvalidResponse: the response has no content";
    if (call.fate == Fate::answered) call.fate = Fate::failed;
  } else {
    call.input_tokens = 1500;
    call.output_tokens = 200;
  }
  if (call.answer.verb == "no_tool") call.reason = "model did not return propose_action tool call";
  if (call.answer.verb == "declare_failure") call.reason = long_text();
  return boost::json::parse(response_to(call.answer));
}

// A request that failed, or that was ended from outside.
void Host::give_up(Mission& mission, Call& call, Fault fault) {
  const Mode mode = mission.scenario.mode;
  const auto limit = mission.unit_limit();
  call.end = last_end_ = world_.now();
  const bool unit_ends = limit && call.end - mission.unit_start >= *limit;
  if (mission.cancelled_at) {
    call.fate = Fate::dropped;
  } else if (fault >= Fault::connection_error && fault <= Fault::call_throws_odd) {
    const bool may_retry = mode != Mode::shadow && mode != Mode::observer && mission.scenario.transport_retry;
    call.fate = unit_ends ? Fate::either : Fate::failed;
    if (fault <= Fault::server_error && may_retry && call.requests == 1 && !unit_ends) call.fate = Fate::retrying;
    call.reason = planned_error(fault).reason;
  } else if (call.end == call.request_start + seconds(20)) {
    call.fate = unit_ends ? Fate::either : Fate::timed_out;
    call.reason = "vision timeout after 20.0s";
  } else {
    call.fate = Fate::dropped;
    mission.expect(unit_ends, "8. a request was ended before its time-out");
  }
}

}  // namespace vision::world
