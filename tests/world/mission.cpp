#include "tests/world/mission.hpp"

#include <boost/json/serialize.hpp>

namespace vision::world {

using std::chrono::seconds;

Mission::Mission(std::string name, const Scenario& what)
    : id(std::move(name)),
      scenario(what),
      context({{"workflow_name", id}, {"phase", 2}, {"platform", "acme"}, {"last_action", "the caller's"}}) {
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

std::exception_ptr Mission::thrown(std::exception_ptr what) {
  errors.push_back(what);
  return what;
}

void Mission::visit_begins(World& world, const Visit& visit) {
  if (cancelled_at && !was_cancelled_in_call && !(visit.name == "agent" && world.now() == started)) {
    breaches.push_back("9. " + std::string(visit.name) + " was begun after the cancellation");
  }
  if (was_aborted) breaches.push_back("7. " + std::string(visit.name) + " was begun after the abort");
  if (visit.name == "screenshot") {
    unit_start = world.now();
    ++screenshots;
  }
}

void Mission::visit_ended(World& world, const Visit& visit) {
  const Duration now = world.now();
  const std::string name(visit.name);
  if (name == "agent") agent_ended = now;
  if (cancelled_at && now > *cancelled_at + patience) {
    breaches.push_back("9. " + name + " went on after the cancellation");
  }
  if (name == "create" && now > visit.start + seconds(20) + patience) {
    breaches.push_back("8. a request took longer than its time-out");
  }
  if (in_unit(name) && now > unit_start + *unit_limit() + patience) {
    breaches.push_back("8. " + name + " went on after the limit of screenshot and ask");
  }
}

void Mission::answered(const Answer& answer) {
  const Scenario& s = scenario;
  const std::size_t place = next_answer++;
  const bool is_same = place > 0 && place < s.answers.size() && s.answers[place] == s.answers[place - 1];
  repeats = is_same ? repeats + 1 : 1;
  const bool is_page_action =
      answer.verb == "click" || answer.verb == "type" || answer.verb == "key" || answer.verb == "scroll";
  const bool acts = s.mode == Mode::act_loop || s.mode == Mode::wrapper;
  const bool may_act = acts && is_page_action && answer.has_all_needs && answer.confidence >= 0.6 && !s.read_only &&
                       (s.mode == Mode::wrapper || repeats < 3);
  permit = may_act ? answer.verb : "";
}

std::string head(std::string_view text, std::size_t count) {
  std::size_t end = 0;
  for (; end < text.size(); ++end) {
    const bool starts_character = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
    if (starts_character && count-- == 0) break;
  }
  return std::string(text.substr(0, end));
}

std::string long_reason() {
  std::string text = "r";
  for (int i = 0; i < 300; ++i) text += "ä";
  return text;
}

}  // namespace vision::world
