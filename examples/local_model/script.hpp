#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace local_model {

/// One instruction, in one of the few forms that the model understands.
struct Instruction {
  enum class Kind { click, click_under, type, press, wait, scroll_down, scroll_up, report_after, report_under };

  int number = 0;  ///< as the script numbers it
  Kind kind = Kind::click;
  std::string quoted;  ///< the text between the quotation marks
};

/// `If "..." is visible, ...`: checked before every step.
struct Guard {
  enum class Verdict { declare_failure, escalate };

  std::string quoted;
  Verdict verdict = Verdict::declare_failure;
};

/// What the model was asked to do, line by line. usage.txt defines the sentences.
struct Script {
  std::vector<Instruction> instructions;
  std::vector<Guard> guards;
  std::string not_understood;  ///< the first numbered line of an unknown form, or empty
};

/// How far the model has come, according to its own notes.
struct Progress {
  int done = 0;   ///< number of the last instruction carried out
  int tries = 0;  ///< looks spent on the instruction after it
};

/// Reads the script out of a user message: the text below its last "# Task" line,
/// inside the frame of the mission brief when there is one. Without a numbered
/// line there, the "current_step" line of the workflow context is the only
/// instruction.
Script parse_script(std::string_view user_message);

/// Reads the notes back from the "last_action" line of the workflow context.
Progress parse_progress(std::string_view user_message);

/// The notes that `parse_progress` reads, for the start of a reason: "[3] " when
/// this action carries out instruction 3, "[3 try 2] " when this is the second
/// look for its target.
std::string done_note(int number);
std::string try_note(int number, int tries);

}  // namespace local_model
