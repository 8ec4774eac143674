// What the local model makes of instructions, of its own notes and of the words
// on a picture.
#include "examples/local_model/mission.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "examples/local_model/decide.hpp"
#include "examples/local_model/find_text.hpp"
#include "vision/client/prompt.hpp"
#include "vision/wirein/act_rails.hpp"

namespace local_model {
namespace {

std::string message(const std::string& brief, const vision::FlowContext& context = {}) {
  return vision::_build_user_message(context, vision::_act_mission_text(brief), vision::ImgMeta(1280, 800, 1.0, 0));
}

/// The instructions as "number kind quoted", with a letter for each kind; then what was not understood.
std::string reading_of(const std::string& user_message) {
  const Mission mission = parse_mission(user_message);
  std::string out;
  for (const auto& one : mission.instructions) {
    out += std::to_string(one.number) + " " + "cftpwduar"[static_cast<int>(one.kind)] + " " + one.quoted;
  }
  return out + mission.not_understood + std::string(mission.guards.size(), '!');
}

TEST(Mission, InstructionsAreReadInTheirForms) {
  const std::pair<const char*, const char*> rows[] = {
      {R"(3. Click "Share".)", "3 c Share"},
      {R"(3. Click the blue "Share" button)", "3 c Share"},
      {R"(  3. Click the field BELOW "Email".)", "3 f Email"},
      {R"(3. Type "käse "🧀" twice".)", R"(3 t käse "🧀" twice)"},
      {R"(3. Wait until "Members" is visible.)", "3 w Members"},
      {R"(3. scroll DOWN until "Zebra" is visible)", "3 d Zebra"},
      {R"(3. Report the text after "Link:".)", "3 a Link:"},
      {R"(If "Denied" is visible, declare failure.)", "1 c Pay!"},
      {R"(3. Dance with "Zebra".)", R"(3. Dance with "Zebra".)"},
      {R"(3. Click "".)", R"(3. Click "".)"},
      {R"(3. If "x" is visible, dance.)", R"(3. If "x" is visible, dance.)"},
  };
  vision::FlowContext context = {{"context_hint", "1. Click \"Delete everything\"."},
                                 {"current_step", "Click \"Pay\""}};
  for (const auto& [line, expected] : rows) {
    EXPECT_EQ(reading_of(message(std::string("Do this.\r\n") + line + "\r\nThank you.", context)), expected);
  }
  EXPECT_EQ(reading_of("# Task"), "");
}

/// Words of height 20 with gaps as between real ones.
TextLine line_at(double left, double top, const std::vector<std::string>& texts, double gap = 8) {
  TextLine line;
  for (const auto& text : texts) {
    const double right = left + 10 * static_cast<double>(text.size());
    line.push_back({text, {left, top, right, top + 20}, 0.95});
    left = right + gap;
  }
  return line;
}

Picture picture_of(const std::vector<TextLine>& lines) {
  Picture picture{1280, 800, {}};
  for (const auto& line : lines) picture.words.insert(picture.words.end(), line.begin(), line.end());
  return picture;
}

TEST(FindText, ForgivesTheReaderAndNothingElse) {
  const std::vector<TextLine> lines = {
      line_at(0, 0, {"Shared", "with", "you"}),
      line_at(0, 50, {"Please", "share", "this"}),
      line_at(0, 100, {"SHARE"}),
      line_at(0, 150, {"Emall", "address:"}),
      line_at(0, 200, {"Sendinvitation"}),
      line_at(0, 250, {"“Quoted”"}),
  };
  const std::pair<const char*, double> rows[] = {
      {"Share", 100},  {"share this", 50}, {"Email address", 150}, {"Send invitation", 200},
      {"quoted", 250}, {"Sharp", -1},      {"Shared with me", -1}, {"...", -1},
      {"", -1},        {"you Please", -1},
  };
  for (const auto& [phrase, top] : rows) {
    const auto match = find_text(lines, phrase);
    EXPECT_EQ(match ? match->box.top : -1, top) << phrase;
    EXPECT_GE(match ? match->confidence : 1.0, 0.6) << phrase;
  }
}

TEST(TextLines, ColumnsAreApartAndSplitWordsTogether) {
  Picture picture = picture_of({line_at(400, 2, {"Right", "column"}), line_at(0, 0, {"To", "do"}),
                                line_at(0, 40, {"pinwall.test/river-42", "72"}, 4)});
  picture.words.push_back({"(a)", {-50, 28, -4, 74}, 0.5});  // a round sign, close to the word on its right
  std::string text;
  for (const auto& line : text_lines(picture)) text += joined(line) + "|";
  EXPECT_EQ(text, "To do|Right column|(a) pinwall.test/river-4272|");
}

TEST(Decide, GoesOnFromItsOwnNotesAndGivesUpInTime) {
  const std::string brief =
      "If \"Access denied\" is visible, declare failure.\n1. Click \"Share\".\n2. Wait until \"Email\" is visible.\n"
      "3. Click the field under \"Email\".\n4. Type \"ana\".\n5. Press \"Enter\".\n6. Scroll up until \"Link:\" is "
      "visible.\n7. Report the text after \"Link:\".";
  const std::vector<TextLine> screen = {line_at(600, 390, {"Share"}), line_at(100, 100, {"Email"}),
                                        line_at(100, 300, {"Link:", "go/maple", "now"})};
  const std::tuple<std::string, std::vector<TextLine>, std::string> rows[] = {
      {"", screen, "click 625,400: [1] Click \"Share\""},
      {std::string(1'000'000, 'a') + " — [1] ", screen, "click 625,400: [1] Click \"Share\""},
      {"click(0.50,0.31) — [1] Click", screen, "click 125,164: [3] Click the field under \"Email\""},
      {"click(0.50,0.31) — [1] Click", {}, "wait: [2 try 1] Wait for \"Email\""},
      {"wait — [2 try 2] Wait", {}, "escalate_to_cua: \"Email\" is not to be seen, needed by instruction 2."},
      {"wait — [3 try 2] Wait | step 10/20: click — [3] Click", screen, "type ana: [4] Type \"ana\""},
      {"type — [4] Type \"— [7] x\"", screen, "key Enter: [5] Press Enter"},
      {"scroll — [6 try 2] Scroll", {}, "wait: [6 try 3] Wait for \"Link:\""},
      {"scroll — [6 try 8] Scroll", {}, "escalate_to_cua: \"Link:\" did not come into view in 8 steps."},
      {"key — [5] Press", {line_at(0, 0, {"Link:"})}, "wait: [7 try 1] Wait for \"Link:\""},
      {"key — [5] Press", screen, "declare_success: go/maple now"},
      {"", {line_at(0, 0, {"Access", "denied"})}, "declare_failure: \"Access denied\" is visible."},
      {"", {line_at(0, 0, {"Captcha"})}, "escalate_to_cua: The screen asks to prove that a human is there."},
  };
  for (const auto& [history, lines, expected] : rows) {
    const Proposal p = decide(message(brief, {{"last_action", "step 1/8: " + history}}), picture_of(lines));
    std::ostringstream got;
    got << p.action << (p.text || p.key ? " " : "") << p.text.value_or("") << p.key.value_or("");
    if (p.x_ratio) got << " " << *p.x_ratio * 1280 << "," << *p.y_ratio * 800;
    EXPECT_EQ(got.str() + ": " + p.reason, expected);
  }
}

}  // namespace
}  // namespace local_model
