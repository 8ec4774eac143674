#include "tests/world/mission.hpp"

#include <algorithm>
#include <boost/json/serialize.hpp>

#include "vision/client/api_error.hpp"

namespace vision::world {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool is_page_action(std::string_view verb) {
  return verb == "click" || verb == "type" || verb == "key" || verb == "scroll";
}

template <class E>
PlannedError planned(const E& error, std::string_view kind) {
  std::string text;
  if constexpr (std::is_base_of_v<std::exception, E>) text = error.what();
  return {std::make_exception_ptr(error), std::string(kind) + ": " + text};
}

}  // namespace

PlannedError planned_error(Fault fault) {
  switch (fault) {
    case Fault::connection_error:
      return planned(APIConnectionError(long_text()), "transport error: APIConnectionError");
    case Fault::rate_limit:
      return planned(RateLimitError(long_text(), {429, "rate_limit_error", "r"}), "transport error: RateLimitError");
    case Fault::server_error:
      return planned(InternalServerError(long_text(), {529, "", "r"}), "transport error: InternalServerError");
    case Fault::bad_request:
      return planned(BadRequestError(long_text(), {400, "", "r"}), "unexpected error: BadRequestError");
    case Fault::page_error: return planned(HostError(long_text()), "unexpected error: HostError");
    case Fault::plain_error:
    case Fault::call_throws: return planned(std::logic_error(long_text()), "unexpected error: logic_error");
    case Fault::odd_error:
    case Fault::call_throws_odd: return planned(42, "unexpected error: int");
    case Fault::own_abort:
      return planned(boost::system::system_error(asio::error::operation_aborted), "unexpected error: system_error");
    default: return {};
  }
}

std::string long_text() {
  std::string text = "x";
  for (int i = 0; i < 300; ++i) text += "é";
  return text;
}

std::string head(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (; end < text.size(); ++end) {
    const bool starts_character = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
    if (starts_character && count-- == 0) break;
  }
  return std::string(text.substr(0, end));
}

Mission::Mission(World& in, std::string name, const Scenario& what)
    : world(in),
      id(std::move(name)),
      scenario(what),
      context({{"workflow_name", id}, {"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}}),
      page(in, *this) {
  if (what.unreadable_context) context["attempts"] = "many";
  context_text = boost::json::serialize(context);
}

std::optional<Duration> Mission::unit_limit() const {
  if (scenario.mode == Mode::act_loop) return seconds(52);
  if (scenario.mode == Mode::shadow || scenario.mode == Mode::observer) return seconds(28);
  return {};
}

bool Mission::in_unit(std::string_view name) const {
  return unit_limit() && (name == "screenshot" || name == "evaluate" || name == "create" || name == "hook");
}

void Mission::hangs(std::string_view name) {
  if (name != "create" && !in_unit(name)) has_unbounded_hang = true;
}

std::exception_ptr Mission::thrown(Fault fault) {
  return errors.emplace_back(planned_error(fault).error);
}

bool Mission::threw(const std::exception_ptr& what) const {
  return std::find(errors.begin(), errors.end(), what) != errors.end();
}

void Mission::visit_begins(const Visit& visit) {
  const std::string name(visit.name);
  const bool is_first_agent = name == "agent" && visit.start == started;
  ++visits[visit.name];
  if (cancelled_at && !was_cancelled_in_call && !is_first_agent) {
    breaches.push_back("9. " + name + " was begun after the cancellation");
  }
  if (was_aborted) breaches.push_back("7. " + name + " was begun after the abort");
  if (is_page_action(name)) {
    ++actions;
    if (permit != name) breaches.push_back("7. the page was touched unbidden: " + name);
    permit.clear();
  }
  if (name != "screenshot") return;
  unit_start = visit.start;
  if (scenario.mode != Mode::act_loop) return;
  if (!permit.empty()) breaches.push_back("7. a proposed " + permit + " was not carried out");
  const auto pause = last_verb == "scroll" ? milliseconds(500) : milliseconds(1000);
  expect(last_verb.empty() || visit.start >= last_action_end + pause, "8. the page was given no time to settle");
  last_verb.clear();
}

void Mission::visit_ended(const Visit& visit) {
  const Duration now = world.now();
  const std::string name(visit.name);
  if (name == "agent") agent_ended = now;
  if (is_page_action(name)) {
    last_verb = name;
    last_action_end = now;
  }
  if (cancelled_at && now > *cancelled_at + patience) {
    breaches.push_back("9. " + name + " went on after the cancellation");
  }
  const bool is_slow = name == "create" && now > visit.start + seconds(20) + patience;
  expect(!is_slow, "8. a request took longer than its time-out");
  if (in_unit(name) && now > unit_start + *unit_limit() + patience) {
    breaches.push_back("8. " + name + " went on after the limit of screenshot and ask");
  }
}

void Mission::answered(const Answer& answer) {
  const std::size_t place = next_answer++;
  const auto& all = scenario.answers;
  const bool is_same = place > 0 && place < all.size() && all[place] == all[place - 1];
  repeats = is_same ? repeats + 1 : 1;
  const bool acts = scenario.mode == Mode::wrapper || (scenario.mode == Mode::act_loop && repeats < 3);
  const bool may_act = acts && is_page_action(answer.verb) && answer.has_all_needs && answer.confidence >= 0.6;
  permit = may_act && !scenario.read_only ? answer.verb : "";
}

asio::awaitable<Bytes> Page::screenshot(ScreenshotOptions) {
  return world_.seam(mission_, "screenshot", Bytes("PNG of " + mission_.id));
}

asio::awaitable<boost::json::value> Page::evaluate(std::string) {
  return world_.seam(mission_, "evaluate", boost::json::value(2.0));
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

}  // namespace vision::world
