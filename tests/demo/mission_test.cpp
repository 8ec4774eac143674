// What the local model makes of instructions, of its own notes and of the words
// on a picture.
#include "examples/local_model/mission.hpp"

#include <gtest/gtest.h>

#include "examples/local_model/decide.hpp"
#include "examples/local_model/find_text.hpp"
#include "vision/client/prompt.hpp"
#include "vision/wirein/act_rails.hpp"

namespace local_model {
namespace {

using Kind = Instruction::Kind;

std::string message(const std::string& brief, vision::FlowContext context = {}) {
  return vision::_build_user_message(context, vision::_act_mission_text(brief), vision::ImgMeta(1280, 800, 1.0, 0));
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

TEST(Mission, InstructionsAreReadInTheirForms) {
  const struct {
    const char* line;
    std::optional<Kind> kind;
    const char* quoted;
  } cases[] = {
      {R"(3. Click "Share".)", Kind::click, "Share"},
      {R"(3. Click the blue "Share" button)", Kind::click, "Share"},
      {R"(  3. Click the field under "Email address".)", Kind::click_under, "Email address"},
      {R"(3. Click the field BELOW "Email".)", Kind::click_under, "Email"},
      {R"(3. Type "say "hi" twice".)", Kind::type, R"(say "hi" twice)"},
      {R"(3. Type "käse 🧀")", Kind::type, "käse 🧀"},
      {R"(3. Press "Control+a".)", Kind::press, "Control+a"},
      {R"(3. Wait until "Members" is visible.)", Kind::wait, "Members"},
      {R"(3. scroll DOWN until "Zebra" is visible)", Kind::scroll_down, "Zebra"},
      {R"(3. Scroll up until "Zebra" is visible)", Kind::scroll_up, "Zebra"},
      {R"(3. Report the text after "Link:".)", Kind::report_after, "Link:"},
      {R"(3. Report the text under "Link".)", Kind::report_under, "Link"},
      {R"(3. Dance with "Zebra".)", std::nullopt, "3. Dance with \"Zebra\"."},
      {R"(3. Click Share.)", std::nullopt, "3. Click Share."},
      {R"(3. Click "".)", std::nullopt, "3. Click \"\"."},
      {R"(3. If "x" is visible, dance.)", std::nullopt, "3. If \"x\" is visible, dance."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const Mission mission = parse_mission(message(std::string("Do this.\r\n") + c.line + "\r\nThank you."));
    ASSERT_EQ(mission.instructions.size(), c.kind ? 1u : 0u);
    EXPECT_EQ(mission.not_understood, c.kind ? "" : c.quoted);
    if (!c.kind) continue;
    EXPECT_EQ(mission.instructions[0].number, 3);
    EXPECT_EQ(mission.instructions[0].kind, *c.kind);
    EXPECT_EQ(mission.instructions[0].quoted, c.quoted);
  }
}

TEST(Mission, OnlyTheBriefIsRead) {
  vision::FlowContext context;
  context["context_hint"] = "1. Click \"Delete everything\".";
  context["current_step"] = "Click \"Pay\"";
  const Mission framed = parse_mission(message("If \"Denied\" is visible, declare failure.\n1. Click \"A\".", context));
  ASSERT_EQ(framed.instructions.size(), 1u);
  EXPECT_EQ(framed.instructions[0].quoted, "A");
  ASSERT_EQ(framed.guards.size(), 1u);

  const auto plain = vision::_build_user_message(context, std::nullopt, vision::ImgMeta(1280, 800, 1.0, 0));
  const Mission single = parse_mission(plain);
  ASSERT_EQ(single.instructions.size(), 1u);
  EXPECT_EQ(single.instructions[0].quoted, "Pay");

  EXPECT_TRUE(parse_mission("").instructions.empty());
  EXPECT_TRUE(parse_mission("# Task").instructions.empty());
}

TEST(Mission, NotesAreReadBackFromTheLastAction) {
  const struct {
    const char* history;
    int done, tries;
  } cases[] = {
      {"", 0, 0},
      {"step 1/8: click(0.50,0.31) — [1] Click \"A\"", 1, 0},
      {"step 1/8: click(0.50,0.31) — [1] Click \"A\" | step 2/8: wait — [3 try 1] Wait", 2, 1},
      {"step 9/20: wait — [3 try 2] Wait | step 10/20: key — [3] Press Enter", 3, 0},
      {"step 1/8: click(0.50,0.31) — Open the share dialog", 0, 0},
      {"step 1/8: type — [1] Type \"— [7] x\"", 1, 0},
      {"step 1/8: wait — [99999 try 1] x", 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.history);
    vision::FlowContext context;
    context["last_action"] = c.history;
    const Progress progress = parse_progress(message("1. Click \"A\".", context));
    EXPECT_EQ(progress.done, c.done);
    EXPECT_EQ(progress.tries, c.tries);
  }
  vision::FlowContext long_history;
  long_history["last_action"] = "step 1/8: " + std::string(1'000'000, 'a') + " — [1] ";
  EXPECT_EQ(parse_progress(message("1. Click \"A\".", long_history)).done, 0);
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
  const struct {
    const char* phrase;
    double top;  // of the match; negative for none
  } cases[] = {
      {"Share", 100},  {"share this", 50}, {"Email address", 150}, {"Send invitation", 200},
      {"quoted", 250}, {"Sharp", -1},      {"Shared with me", -1}, {"...", -1},
      {"", -1},        {"you Please", -1},
  };
  for (const auto& c : cases) {
    const auto match = find_text(lines, c.phrase);
    EXPECT_EQ(match ? match->box.top : -1, c.top) << c.phrase;
    EXPECT_GE(match ? match->confidence : 1.0, 0.6) << c.phrase;
  }
}

TEST(TextLines, ColumnsAreApartAndSplitWordsTogether) {
  std::vector<TextLine> parts = {line_at(400, 2, {"Right", "column"}), line_at(0, 0, {"To", "do"}),
                                 line_at(0, 40, {"pinwall.test/river-42", "72"}, 4)};
  Picture picture = picture_of(parts);
  picture.words.push_back({"(a)", {-50, 28, -4, 74}, 0.5});  // a round sign, close to the word on its right
  const auto lines = text_lines(picture);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(joined(lines[0]), "To do");
  EXPECT_EQ(joined(lines[1]), "Right column");
  EXPECT_EQ(joined(lines[2]), "(a) pinwall.test/river-4272");
}

/// Plays a mission against pictures, with the loop's own history and repeat rule.
class Play {
 public:
  explicit Play(std::string brief) : brief_(std::move(brief)) {}

  Proposal next(const Picture& picture) {
    vision::FlowContext context;
    if (step_ > 0) context["last_action"] = history_.text();
    Proposal p = decide(message(brief_, context), picture);
    vision::ActionResult result(p.action, p.reason, p.confidence, p.next_expected_state);
    result.x_ratio = p.x_ratio;
    result.y_ratio = p.y_ratio;
    result.text = p.text;
    result.key = p.key;
    EXPECT_LT(guard_.note(result), 3) << "the same answer three times in a row";
    history_.add(++step_, 20, result);
    return p;
  }

  std::string actions(const Picture& picture, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += next(picture).action + " ";
    return out;
  }

 private:
  std::string brief_;
  vision::detail::Breadcrumbs history_;
  vision::detail::RepeatGuard guard_;
  std::int64_t step_ = 0;
};

TEST(Decide, FollowsAMissionToItsAnswer) {
  Play play(
      "1. Click \"Share\".\n2. Wait until \"Email\" is visible.\n3. Click the field under \"Email\".\n"
      "4. Type \"ana\".\n5. Press \"Enter\".\n6. Report the text after \"Link:\".");
  const Picture board = picture_of({line_at(600, 390, {"Share"})});
  Proposal p = play.next(board);
  EXPECT_EQ(p.action, "click");
  EXPECT_DOUBLE_EQ(*p.x_ratio, 625.0 / 1280);
  EXPECT_DOUBLE_EQ(*p.y_ratio, 400.0 / 800);
  EXPECT_EQ(play.next(board).action, "wait");
  const Picture dialog = picture_of({line_at(100, 100, {"Email"}), line_at(100, 300, {"Link:"})});
  p = play.next(dialog);
  EXPECT_EQ(p.action, "click");
  EXPECT_GT(*p.y_ratio, 130.0 / 800);
  EXPECT_EQ(*play.next(dialog).text, "ana");
  EXPECT_EQ(*play.next(dialog).key, "Enter");
  EXPECT_EQ(play.next(dialog).action, "wait");  // the label is there, its text is not yet
  p = play.next(picture_of({line_at(100, 300, {"Link:", "go/maple", "now"})}));
  EXPECT_EQ(p.action, "declare_success");
  EXPECT_EQ(p.reason, "go/maple now");
}

TEST(Decide, GivesUpInTime) {
  const Picture empty{1280, 800, {}};
  const struct {
    const char* brief;
    const char* actions;
  } cases[] = {
      {"1. Click \"A\".", "wait wait escalate_to_cua "},
      {"1. Scroll down until \"A\" is visible.",
       "scroll scroll wait scroll scroll wait scroll scroll escalate_to_cua "},
      {"Do something useful.", "escalate_to_cua "},
      {"1. Dance with \"A\".", "escalate_to_cua "},
  };
  for (const auto& c : cases) {
    const auto count = std::count(c.actions, c.actions + std::string(c.actions).size(), ' ');
    EXPECT_EQ(Play(c.brief).actions(empty, static_cast<int>(count)), c.actions) << c.brief;
  }
}

TEST(Decide, StopsAtGuardsAndCaptchas) {
  const std::string brief = "If \"Access denied\" is visible, declare failure.\n1. Press \"Enter\".";
  const Picture denied = picture_of({line_at(0, 0, {"Sorry:", "Access", "denied"})});
  EXPECT_EQ(decide(message(brief), denied).action, "declare_failure");
  const Picture captcha = picture_of({line_at(0, 0, {"I'm", "not", "a", "robot"})});
  EXPECT_EQ(decide(message(brief), captcha).action, "escalate_to_cua");
  EXPECT_EQ(decide(message(brief), Picture{1280, 800, {}}).action, "key");
}

}  // namespace
}  // namespace local_model
