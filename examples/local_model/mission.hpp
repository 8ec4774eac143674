#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace local_model {

/// One instruction of a mission, in the few forms that the model understands.
struct Instruction {
  enum class Kind { click, click_under, type, press, wait, scroll_down, scroll_up, report_after, report_under };

  int number = 0;  ///< as the mission numbers it
  Kind kind = Kind::click;
  std::string quoted;  ///< the text between the quotation marks
};

/// `If "..." is visible, ...`: looked for before every step.
struct Guard {
  enum class Verdict { declare_failure, escalate };

  std::string quoted;
  Verdict verdict = Verdict::declare_failure;
};

/// What the model was asked to do.
struct Mission {
  std::vector<Instruction> instructions;
  std::vector<Guard> guards;
  std::string not_understood;  ///< the first numbered line without a known form, or empty
};

/// How far the mission has come, according to the model's own notes.
struct Progress {
  int done = 0;   ///< number of the last instruction carried out
  int tries = 0;  ///< looks spent on the instruction after it
};

/// Reads the mission out of a user message: what stands below its last "# Task"
/// line, inside the brief's frame when there is one. Without any numbered line
/// there, the text of the "current_step" line of the workflow context is taken
/// as the only instruction.
///
/// A numbered line is `<number>. ` and one of
///   Click "Share".
///   Click the field under "Email address".
///   Type "ana@example.org".
///   Press "Control+a".
///   Wait until "Members" is visible.
///   Scroll down until "Zebra" is visible.   (or up)
///   Report the text after "Link:".          (or under)
/// and a guard, numbered or not, is
///   If "Access denied" is visible, declare failure.   (or escalate)
/// Words besides these are free; other lines are ignored.
Mission parse_mission(std::string_view user_message);

/// Reads the notes back from the "last_action" line of the workflow context.
Progress parse_progress(std::string_view user_message);

/// The notes that `parse_progress` reads, to be put at the start of a reason:
/// "[3] " when instruction 3 is carried out by this action, "[3 try 2] " when
/// this is the second look for its target.
std::string done_note(int number);
std::string try_note(int number, int tries);

}  // namespace local_model
