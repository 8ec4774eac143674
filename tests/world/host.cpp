#include "tests/world/host.hpp"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "vision/client/api_error.hpp"

namespace vision::world {
namespace {

using std::chrono::seconds;
using Fate = Call::Fate;

bool is_transport(Fault fault) {
  return fault == Fault::connection_error || fault == Fault::rate_limit || fault == Fault::server_error;
}

std::string error_text(Fault fault) {
  const auto text = [&]() -> std::string {
    try {
      std::rethrow_exception(error_of(fault));
    } catch (const std::exception& e) {
      return e.what();
    } catch (...) {
      return "";
    }
  }();
  switch (fault) {
    case Fault::connection_error: return "transport error: APIConnectionError: " + text;
    case Fault::rate_limit: return "transport error: RateLimitError: " + text;
    case Fault::server_error: return "transport error: InternalServerError: " + text;
    case Fault::bad_request: return "unexpected error: BadRequestError: " + text;
    case Fault::page_error: return "unexpected error: HostError: " + text;
    case Fault::odd_error:
    case Fault::call_throws_odd: return "unexpected error: int: ";
    case Fault::own_abort: return "unexpected error: system_error: " + text;
    default: return "unexpected error: logic_error: " + text;
  }
}

boost::json::value response_to(const Answer& answer) {
  if (answer.verb == "broken") return boost::json::object();
  const std::string usage = R"({"usage": {"input_tokens": 1500, "output_tokens": 200}, "content": [)";
  if (answer.verb == "no_tool") return boost::json::parse(usage + "]}");
  return boost::json::parse(usage + R"({"type": "tool_use", "name": "propose_action", "input": {"action": ")" +
                            answer.verb + R"(", "reason": ")" + long_reason() + R"(", "confidence": )" +
                            std::to_string(answer.confidence) + R"(, "next_expected_state": "next")" + answer.members +
                            "}}]}");
}

}  // namespace

asio::awaitable<Bytes> Page::screenshot(ScreenshotOptions) {
  if (!mission_.permit.empty() && mission_.scenario.mode == Mode::act_loop) {
    mission_.breaches.push_back("7. a proposed " + mission_.permit + " was not carried out");
  }
  if (!mission_.last_verb.empty() && mission_.scenario.mode == Mode::act_loop) {
    const auto settle =
        mission_.last_verb == "scroll" ? Duration(std::chrono::milliseconds(500)) : Duration(seconds(1));
    if (world_.now() < mission_.last_action_end + settle) {
      mission_.breaches.push_back("8. the page was given no time to settle");
    }
    mission_.last_verb.clear();
  }
  return take(world_.visit(mission_, "screenshot"));
}

asio::awaitable<Bytes> Page::take(Visit visit) {
  co_await world_.perform(visit);
  co_return Bytes("PNG of " + mission_.id);
}

asio::awaitable<boost::json::value> Page::evaluate(std::string) {
  return answer(world_.visit(mission_, "evaluate"));
}

asio::awaitable<boost::json::value> Page::answer(Visit visit) {
  co_await world_.perform(visit);
  co_return boost::json::value(2.0);
}

std::optional<boost::json::object> Page::viewport_size() {
  world_.call(mission_, "viewport_size");
  return boost::json::object{{"width", 1280}, {"height", 800}};
}

Mouse& Page::mouse() {
  world_.call(mission_, "mouse");
  return *this;
}

Keyboard& Page::keyboard() {
  world_.call(mission_, "keyboard");
  return *this;
}

asio::awaitable<void> Page::act(std::string_view verb) {
  ++mission_.actions;
  if (mission_.permit != verb) mission_.breaches.push_back("7. the page was touched unbidden: " + std::string(verb));
  mission_.permit.clear();
  return finish_action(world_.visit(mission_, verb));
}

asio::awaitable<void> Page::finish_action(Visit visit) {
  co_await world_.perform(visit);
  mission_.last_verb = visit.name;
  mission_.last_action_end = world_.now();
}

asio::awaitable<boost::json::value> Model::create(const MessagesRequest& request) {
  const std::string_view text = request.suffix();
  const auto at = text.find("workflow_name: ") + 15;
  const std::string id(text.substr(at, text.find('\\', at) - at));
  for (auto& mission : world_.missions) {
    if (mission->id != id) continue;
    Call& call = call_of(*mission, request);
    const std::size_t place = static_cast<std::size_t>(&call - mission->calls.data());
    try {
      return respond(world_.visit(*mission, "create"), place);
    } catch (const std::exception&) {
      give_up(*mission, call, Fault::call_throws);
      throw;
    } catch (...) {
      give_up(*mission, call, Fault::call_throws_odd);
      throw;
    }
  }
  throw std::logic_error("a request of no mission");
}

Call& Model::call_of(Mission& mission, const MessagesRequest& request) {
  const Duration now = world_.now();
  if (!mission.calls.empty() && mission.calls.back().fate == Fate::retrying) {
    Call& call = mission.calls.back();
    if (now != call.end + std::chrono::milliseconds(1500)) mission.breaches.push_back("8. the pause before a retry");
    if (++call.requests > 2) mission.breaches.push_back("1. a call made more than two requests");
    call.request_start = now;
    call.fate = Fate::open;
    return call;
  }
  on_first_request(mission);
  Call& call = mission.calls.emplace_back();
  call.requests = 1;
  call.model = request.model();
  call.start = call.request_start = now;
  return call;
}

asio::awaitable<boost::json::value> Model::respond(Visit visit, std::size_t place) {
  Mission& mission = *visit.mission;
  try {
    co_await world_.perform(visit);
  } catch (...) {
    give_up(mission, mission.calls[place], visit.fault);
    throw;
  }
  Call& call = mission.calls[place];
  call.end = world_.now();
  call.reason.clear();
  const auto limit = mission.unit_limit();
  const Duration in_unit = world_.now() - mission.unit_start;
  if (mission.cancelled_at || (limit && in_unit > *limit)) {
    call.fate = Fate::dropped;
  } else if (limit && in_unit == *limit) {
    call.fate = Fate::either;
  } else {
    call.fate = Fate::answered;
  }
  const auto& answers = mission.scenario.answers;
  call.answer = mission.next_answer < answers.size() ? answers[mission.next_answer] : Answer{"escalate_to_cua"};
  if (call.fate != Fate::dropped) mission.answered(call.answer);
  if (call.answer.verb != "broken") {
    call.input_tokens = 1500;
    call.output_tokens = 200;
  }
  if (call.answer.verb == "broken") {
    call.reason = "unexpected error: InvalidResponse: the response has no content";
    if (call.fate == Fate::answered) call.fate = Fate::failed;
  }
  if (call.answer.verb == "no_tool") call.reason = "model did not return propose_action tool call";
  if (call.answer.verb == "declare_failure") call.reason = long_reason();
  co_return response_to(call.answer);
}

// A request that failed, or that was ended from outside.
void Model::give_up(Mission& mission, Call& call, Fault fault) {
  const Duration now = world_.now();
  const auto limit = mission.unit_limit();
  const bool unit_ends = limit && now - mission.unit_start >= *limit;
  const bool is_error = (fault >= Fault::connection_error && fault <= Fault::call_throws_odd);
  call.end = now;
  if (mission.cancelled_at) {
    call.fate = Fate::dropped;
  } else if (is_error) {
    const bool may_retry = mission.scenario.mode != Mode::shadow && mission.scenario.mode != Mode::observer &&
                           (mission.scenario.mode != Mode::ask || mission.scenario.transport_retry);
    call.fate = unit_ends ? Fate::either : Fate::failed;
    if (is_transport(fault) && may_retry && call.requests == 1 && !unit_ends) call.fate = Fate::retrying;
    call.reason = error_text(fault);
  } else if (now == call.request_start + seconds(20)) {
    call.fate = unit_ends ? Fate::either : Fate::timed_out;
    call.reason = "vision timeout after 20.0s";
  } else {
    call.fate = Fate::dropped;
    if (!unit_ends) mission.breaches.push_back("8. a request was ended before its time-out");
  }
}

Host::Host(World& w, std::int64_t call_budget, bool hook)
    : world(w), model(std::make_shared<Model>(w)), budget(call_budget), has_hook(hook) {
  struct Hook {
    explicit Hook(Host& h) : host(h) {}
    asio::awaitable<void> operator()(const ActionResult& result, const FlowContext& context) const {
      Mission& mission = host.mission_of(context);
      if (mission.calls.empty() || mission.calls.back().was_hooked) {
        mission.breaches.push_back("1. the hook ran without an answer");
      } else {
        Call& call = mission.calls.back();
        call.was_hooked = true;
        if (call.fate == Fate::either) call.fate = Fate::answered;
        if (call.fate != Fate::answered) mission.breaches.push_back("1. the hook ran on a call without an answer");
        if (result.latency_ms != call.latency_ms()) mission.breaches.push_back("1. a result with a wrong latency");
      }
      return finish(host.world.visit(mission, "hook"));
    }
    asio::awaitable<void> finish(Visit visit) const { co_await host.world.perform(visit); }
    Host& host;
  };
  VisionClientOptions options;
  options.call_budget(budget);
  if (hook) options.on_action(Hook(*this));
  client = std::make_unique<VisionClient>(model, options);
  model->on_first_request = [this](Mission& mission) {
    if (client->metrics.call_count >= budget) mission.breaches.push_back("1. a request beyond the budget");
  };
}

// The context that the library shows is the caller's with a few entries of its own.
Mission& Host::mission_of(const boost::json::object& context) {
  const auto& id = context.at("workflow_name").as_string();
  for (auto& mission : world.missions) {
    if (std::string_view(id) != mission->id) continue;
    auto rest = context;
    for (const char* own : {"viewport", "context_hint"}) rest.erase(own);
    if (mission->scenario.mode == Mode::act_loop) rest["last_action"] = "the caller's";
    if (boost::json::serialize(rest) != mission->context_text) {
      mission->breaches.push_back("6. the model was shown another context: " + boost::json::serialize(rest));
    }
    return *mission;
  }
  throw std::logic_error("a context of no mission");
}

}  // namespace vision::world
