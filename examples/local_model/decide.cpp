#include "examples/local_model/decide.hpp"

#include <algorithm>
#include <array>

#include "examples/local_model/find_text.hpp"
#include "examples/local_model/script.hpp"

namespace local_model {
namespace {

using Kind = Instruction::Kind;

// At most two waits in a row: the act loop takes a third identical answer as a sign
// that nothing moves. The second one is longer.
constexpr std::array<int, 2> wait_ms = {1500, 4000};
constexpr int scroll_tries = 8;
constexpr double scroll_step = 0.7;  // of the viewport, so that nothing is skipped
constexpr int scroll_pause_ms = 400;

constexpr std::array<std::string_view, 4> captcha_phrases = {"captcha", "recaptcha", "I'm not a robot",
                                                             "verify you are human"};

// How sure the model is of an action whose effect it cannot see beforehand.
constexpr double sure_of_keyboard = 0.9;
constexpr double sure_of_waiting = 0.85;
constexpr double sure_of_verdict = 0.9;

std::string quote(const std::string& text) {
  return '"' + text + '"';
}

Proposal verdict(std::string_view action, std::string reason, double confidence = sure_of_verdict) {
  Proposal proposal;
  proposal.action = action;
  proposal.reason = std::move(reason);
  proposal.confidence = confidence;
  proposal.next_expected_state = "No further action by this model.";
  return proposal;
}

Proposal escalate(std::string reason) {
  return verdict("escalate_to_cua", std::move(reason));
}

bool target_is_on_screen(Kind kind) {
  return kind != Kind::type && kind != Kind::press;
}

// One decision: the script, the progress, and what the picture shows.
class Decision {
 public:
  Decision(std::string_view user_message, const Picture& picture)
      : script_(parse_script(user_message)),
        progress_(parse_progress(user_message)),
        picture_(picture),
        lines_(text_lines(picture)) {}

  Proposal make() const {
    if (auto stop = reason_to_stop()) return *stop;
    int done = progress_.done;
    for (const auto& instruction : script_.instructions) {
      if (instruction.number <= done) continue;
      const auto match = target_is_on_screen(instruction.kind) ? find_text(lines_, instruction.quoted) : std::nullopt;
      const bool only_looks = instruction.kind == Kind::wait || instruction.kind == Kind::scroll_down ||
                              instruction.kind == Kind::scroll_up;
      if (match && only_looks) {
        done = instruction.number;
        continue;
      }
      const int tries = done == progress_.done ? progress_.tries : 0;
      return act(instruction, match, tries);
    }
    return verdict("declare_success", "Every instruction has been carried out.");
  }

 private:
  std::optional<Proposal> reason_to_stop() const {
    for (const auto phrase : captcha_phrases) {
      if (find_text(lines_, phrase)) return escalate("The screen asks for proof of a human.");
    }
    for (const auto& guard : script_.guards) {
      const auto match = find_text(lines_, guard.quoted);
      if (!match) continue;
      const bool failure = guard.verdict == Guard::Verdict::declare_failure;
      return verdict(failure ? "declare_failure" : "escalate_to_cua", quote(guard.quoted) + " is visible.",
                     match->confidence);
    }
    if (!script_.not_understood.empty()) {
      return escalate("The local model does not understand this instruction: " + script_.not_understood);
    }
    if (script_.instructions.empty()) return escalate("The task has no numbered instructions.");
    return std::nullopt;
  }

  Proposal act(const Instruction& instruction, const std::optional<Match>& match, int tries) const {
    switch (instruction.kind) {
      case Kind::type: return type(instruction);
      case Kind::press: return press(instruction);
      case Kind::scroll_down: return scroll(instruction, scroll_step, tries);
      case Kind::scroll_up: return scroll(instruction, -scroll_step, tries);
      case Kind::click:
      case Kind::click_under:
        if (match) return click(instruction, *match);
        break;
      case Kind::report_after:
      case Kind::report_under:
        if (match) {
          if (auto report = this->report(instruction, *match)) return *report;
        }
        break;
      case Kind::wait: break;
    }
    return look_again(instruction, tries);
  }

  Proposal click(const Instruction& instruction, const Match& match) const {
    const bool under = instruction.kind == Kind::click_under;
    // A field begins a little below its label and is about three times as high.
    const double y = under ? match.box.bottom + 2.2 * match.box.height() : match.box.center_y();
    Proposal proposal;
    proposal.action = "click";
    proposal.x_ratio = std::clamp(match.box.center_x() / picture_.width, 0.0, 1.0);
    proposal.y_ratio = std::clamp(y / picture_.height, 0.0, 1.0);
    proposal.reason =
        done_note(instruction.number) + (under ? "Click the field under " : "Click ") + quote(instruction.quoted);
    proposal.confidence = match.confidence;
    proposal.next_expected_state = expectation_after(instruction);
    return proposal;
  }

  Proposal type(const Instruction& instruction) const {
    Proposal proposal;
    proposal.action = "type";
    proposal.text = instruction.quoted;
    proposal.reason = done_note(instruction.number) + "Type " + quote(instruction.quoted);
    proposal.confidence = sure_of_keyboard;
    proposal.next_expected_state = quote(instruction.quoted) + " is in the focused field.";
    return proposal;
  }

  Proposal press(const Instruction& instruction) const {
    Proposal proposal;
    proposal.action = "key";
    proposal.key = instruction.quoted;
    proposal.reason = done_note(instruction.number) + "Press " + instruction.quoted;
    proposal.confidence = sure_of_keyboard;
    proposal.next_expected_state = expectation_after(instruction);
    return proposal;
  }

  // Every third try only waits, so that no three answers in a row are identical.
  Proposal scroll(const Instruction& instruction, double step, int tries) const {
    if (tries >= scroll_tries) {
      return escalate(quote(instruction.quoted) + " did not come into view in " + std::to_string(tries) + " steps.");
    }
    if (tries % 3 == 2) return wait(instruction, tries, scroll_pause_ms);
    Proposal proposal;
    proposal.action = "scroll";
    proposal.scroll_dy_ratio = step;
    proposal.reason = try_note(instruction.number, tries + 1) + "Scroll to find " + quote(instruction.quoted);
    proposal.confidence = sure_of_waiting;
    proposal.next_expected_state = quote(instruction.quoted) + " comes into view.";
    return proposal;
  }

  Proposal look_again(const Instruction& instruction, int tries) const {
    if (tries >= static_cast<int>(wait_ms.size())) {
      return escalate(quote(instruction.quoted) + " is not visible, and instruction " +
                      std::to_string(instruction.number) + " needs it.");
    }
    return wait(instruction, tries, wait_ms[static_cast<std::size_t>(std::max(tries, 0))]);
  }

  Proposal wait(const Instruction& instruction, int tries, int duration_ms) const {
    Proposal proposal;
    proposal.action = "wait";
    proposal.duration_ms = duration_ms;
    proposal.reason = try_note(instruction.number, tries + 1) + "Wait for " + quote(instruction.quoted);
    proposal.confidence = sure_of_waiting;
    proposal.next_expected_state = quote(instruction.quoted) + " is visible.";
    return proposal;
  }

  std::optional<Proposal> report(const Instruction& instruction, const Match& match) const {
    TextLine answer = match.rest;
    if (instruction.kind == Kind::report_under) answer = line_below(lines_, match.box).value_or(TextLine());
    if (answer.empty()) return std::nullopt;
    double sureness = match.confidence;
    for (const auto& word : answer) sureness = std::min(sureness, word.confidence);
    return verdict("declare_success", joined(answer), sureness);
  }

  std::string expectation_after(const Instruction& instruction) const {
    for (const auto& next : script_.instructions) {
      if (next.number > instruction.number && target_is_on_screen(next.kind))
        return quote(next.quoted) + " is visible.";
    }
    return "The page has reacted to the action.";
  }

  Script script_;
  Progress progress_;
  const Picture& picture_;
  std::vector<TextLine> lines_;
};

}  // namespace

Proposal decide(std::string_view user_message, const Picture& picture) {
  return Decision(user_message, picture).make();
}

boost::json::object to_tool_input(const Proposal& proposal) {
  boost::json::object input;
  input["action"] = proposal.action;
  if (proposal.x_ratio) input["x_ratio"] = *proposal.x_ratio;
  if (proposal.y_ratio) input["y_ratio"] = *proposal.y_ratio;
  if (proposal.text) input["text"] = *proposal.text;
  if (proposal.key) input["key"] = *proposal.key;
  if (proposal.scroll_dy_ratio) input["scroll_dy_ratio"] = *proposal.scroll_dy_ratio;
  if (proposal.duration_ms) input["duration_ms"] = *proposal.duration_ms;
  input["reason"] = proposal.reason;
  input["confidence"] = proposal.confidence;
  input["next_expected_state"] = proposal.next_expected_state;
  return input;
}

}  // namespace local_model
