#include "examples/local_model/script.hpp"

#include <algorithm>
#include <cctype>
#include <regex>

namespace local_model {
namespace {

constexpr std::string_view task_heading = "# Task\n";
constexpr std::string_view brief_begin = "--- MISSION BRIEF ---\n";
constexpr std::string_view brief_end = "\n--- END BRIEF ---";

std::vector<std::string> split_lines(std::string_view text) {
  std::vector<std::string> lines(1);
  for (const char c : text) {
    if (c == '\n') {
      lines.emplace_back();
    } else if (c != '\r') {
      lines.back() += c;
    }
  }
  return lines;
}

std::string_view context_part(std::string_view message) {
  return message.substr(0, message.rfind(task_heading));
}

std::string_view task_part(std::string_view message) {
  const auto heading = message.rfind(task_heading);
  if (heading == std::string_view::npos) return {};
  std::string_view task = message.substr(heading + task_heading.size());
  const auto begin = task.find(brief_begin);
  if (begin == std::string_view::npos) return task;
  task.remove_prefix(begin + brief_begin.size());
  return task.substr(0, task.rfind(brief_end));
}

std::string context_value(std::string_view message, std::string_view key) {
  for (const auto& line : split_lines(context_part(message))) {
    if (line.rfind(std::string(key) + ": ", 0) == 0) return line.substr(key.size() + 2);
  }
  return {};
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// A line, split at its first and last quotation mark.
struct Sentence {
  std::string before, quoted, after;
};

std::optional<Sentence> parse_sentence(const std::string& line) {
  const auto open = line.find('"');
  const auto close = line.rfind('"');
  if (open == std::string::npos || close <= open + 1) return std::nullopt;
  Sentence sentence;
  sentence.before = lower(line.substr(0, open));
  sentence.quoted = line.substr(open + 1, close - open - 1);
  sentence.after = lower(line.substr(close + 1));
  return sentence;
}

bool has(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

bool begins(const std::string& text, std::string_view start) {
  return text.rfind(start, 0) == 0;
}

std::optional<Instruction::Kind> kind_of(const std::string& before) {
  using Kind = Instruction::Kind;
  const bool under = has(before, " under ") || has(before, " below ");
  if (begins(before, "click")) return under ? Kind::click_under : Kind::click;
  if (begins(before, "type")) return Kind::type;
  if (begins(before, "press")) return Kind::press;
  if (begins(before, "wait until")) return Kind::wait;
  if (begins(before, "scroll down until")) return Kind::scroll_down;
  if (begins(before, "scroll up until")) return Kind::scroll_up;
  if (begins(before, "report the text")) return under ? Kind::report_under : Kind::report_after;
  return std::nullopt;
}

std::optional<Guard> guard_of(const Sentence& sentence) {
  if (!begins(sentence.before, "if ")) return std::nullopt;
  Guard guard;
  guard.quoted = sentence.quoted;
  if (has(sentence.after, "escalate")) {
    guard.verdict = Guard::Verdict::escalate;
  } else if (!has(sentence.after, "declare failure") && !has(sentence.after, "declare_failure")) {
    return std::nullopt;
  }
  return guard;
}

// Removes a leading "12. " from the line; absent when there is none.
std::optional<int> take_number(std::string& line) {
  std::size_t digits = 0;
  while (digits < line.size() && std::isdigit(static_cast<unsigned char>(line[digits])) != 0) ++digits;
  if (digits == 0 || digits > 4 || line.compare(digits, 2, ". ") != 0) return std::nullopt;
  const int number = std::stoi(line.substr(0, digits));
  line.erase(0, digits + 2);
  return number;
}

void add_line(Script& script, std::string line) {
  line.erase(0, line.find_first_not_of(" \t"));
  const auto number = take_number(line);
  const auto sentence = parse_sentence(line);
  if (sentence) {
    if (auto guard = guard_of(*sentence)) {
      script.guards.push_back(std::move(*guard));
      return;
    }
  }
  if (!number) return;
  const auto kind = sentence ? kind_of(sentence->before) : std::nullopt;
  if (kind) {
    script.instructions.push_back({*number, *kind, sentence->quoted});
  } else if (script.not_understood.empty()) {
    script.not_understood = std::to_string(*number) + ". " + line;
  }
}

}  // namespace

Script parse_script(std::string_view user_message) {
  Script script;
  for (const auto& line : split_lines(task_part(user_message))) add_line(script, line);
  if (script.instructions.empty() && script.not_understood.empty()) {
    const std::string step = context_value(user_message, "current_step");
    if (parse_sentence(step)) add_line(script, "1. " + step);
  }
  return script;
}

Progress parse_progress(std::string_view user_message) {
  // The loop writes the verb and its place, this model the bracket.
  static const std::regex note(
      R"((?:^| \| )step \d{1,6}/\d{1,6}: [a-z_]+(?:\([0-9.,]+\))? — \[(\d{1,4})(?: try (\d{1,4}))?\] )");
  std::string history = context_value(user_message, "last_action");
  constexpr std::size_t enough = 4096;  // for three short lines; libstdc++'s std::regex recurses
  if (history.size() > enough) history.erase(0, history.size() - enough);
  Progress progress;
  for (std::sregex_iterator found(history.begin(), history.end(), note), end; found != end; ++found) {
    const int number = std::stoi((*found)[1]);
    progress.done = (*found)[2].matched ? number - 1 : number;
    progress.tries = (*found)[2].matched ? std::stoi((*found)[2]) : 0;
  }
  return progress;
}

std::string done_note(int number) {
  return "[" + std::to_string(number) + "] ";
}

std::string try_note(int number, int tries) {
  return "[" + std::to_string(number) + " try " + std::to_string(tries) + "] ";
}

}  // namespace local_model
