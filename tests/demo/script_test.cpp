// What the local model decides from instructions, its own notes and the words in a
// picture.
#include <gtest/gtest.h>

#include <sstream>

#include "examples/local_model/decide.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/wirein/internal/act_rails.hpp"

namespace local_model {
namespace {

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

std::string decision(const std::string& brief, const std::string& history, const Picture& picture) {
  const vision::FlowContext context = {{"context_hint", "1. Click \"Delete everything\"."},
                                       {"current_step", "Click \"Pay\""},
                                       {"last_action", "step 1/8: " + history}};
  const Proposal p =
      decide(vision::_build_user_message(context, vision::_act_mission_text(brief), vision::ImgMeta(1280, 800, 1.0, 0)),
             picture);
  std::ostringstream got;
  got << p.action << (p.text || p.key ? " " : "") << p.text.value_or("") << p.key.value_or("");
  if (p.x_ratio) got << " " << *p.x_ratio * 1280 << "," << *p.y_ratio * 800;
  return got.str() + ": " + p.reason;
}

TEST(LocalModel, ReadsInstructionsAndForgivesTheReaderOfThePicture) {
  Picture picture =
      picture_of({line_at(0, 0, {"Shared", "with", "you"}), line_at(400, 2, {"Right", "column"}),
                  line_at(0, 50, {"Please", "share", "this"}), line_at(0, 100, {"SHARE"}),
                  line_at(0, 150, {"Emall", "address:"}), line_at(0, 180, {"Sendinvitation"}),
                  line_at(0, 250, {"“Quoted”"}), line_at(0, 300, {"Link:"}), line_at(60, 300, {"river-42", "72"}, 4)});
  picture.words.push_back({"(a)", {-50, 288, -4, 334}, 0.5});  // a round sign, close to the word on its right
  const std::string wait = "wait: [3 try 1] Wait for ",
                    unclear = "escalate_to_cua: The local model does not understand this instruction: ";
  const std::pair<std::string, std::string> rows[] = {
      {R"(Click "Share".)", R"(click 25,110: [3] Click "Share")"},
      {R"(Click the blue "share this" button)", R"(click 117,60: [3] Click "share this")"},
      {R"(Click "Email address".)", R"(click 69,160: [3] Click "Email address")"},
      {R"(Click "Send invitation".)", R"(click 70,190: [3] Click "Send invitation")"},
      {R"(Click "quoted".)", R"(click 60,260: [3] Click "quoted")"},
      {R"(Click "Sharp".)", wait + R"("Sharp")"},
      {R"(Click "you Right".)", wait + R"("you Right")"},
      {R"(Click "...".)", wait + R"("...")"},
      {R"(Click the field BELOW "Email address".)", R"(click 69,214: [3] Click the field under "Email address")"},
      {R"(Type "käse "🧀" twice".)", R"(type käse "🧀" twice: [3] Type "käse "🧀" twice")"},
      {R"(Wait until "Members" is visible.)", wait + R"("Members")"},
      {R"(scroll DOWN until "Zebra" is visible)", R"(scroll: [3 try 1] Scroll to find "Zebra")"},
      {R"(Report the text after "Link:".)", "declare_success: river-4272"},
      {R"(Dance with "Zebra".)", unclear + R"(3. Dance with "Zebra".)"},
      {R"(If "x" is visible, dance.)", unclear + R"(3. If "x" is visible, dance.)"},
  };
  for (const auto& [instruction, expected] : rows) {
    EXPECT_EQ(decision("Do this.\r\n  3. " + instruction + "\r\nThank you.", "", picture), expected);
  }
  EXPECT_EQ(decision("Pay.", "", picture), R"(wait: [1 try 1] Wait for "Pay")");
}

TEST(LocalModel, GoesOnFromItsOwnNotesAndGivesUpInTime) {
  const std::string brief =
      "If \"Access denied\" is visible, declare failure.\n1. Click \"Share\".\n2. Wait until \"Email\" is visible.\n"
      "3. Click the field under \"Email\".\n4. Type \"ana\".\n5. Press \"Enter\".\n6. Scroll up until \"Link:\" is "
      "visible.\n7. Report the text after \"Link:\".";
  const Picture nothing = picture_of({}),
                screen = picture_of({line_at(600, 390, {"Share"}), line_at(100, 100, {"Email"}),
                                     line_at(100, 300, {"Link:", "go/maple", "now"})});
  const std::tuple<std::string, Picture, std::string> rows[] = {
      {"", screen, "click 625,400: [1] Click \"Share\""},
      {std::string(1'000'000, 'a') + " — [1] ", screen, "click 625,400: [1] Click \"Share\""},
      {"click(0.50,0.31) — [1] Click", screen, "click 125,164: [3] Click the field under \"Email\""},
      {"click(0.50,0.31) — [1] Click", nothing, "wait: [2 try 1] Wait for \"Email\""},
      {"wait — [2 try 2] Wait", nothing, "escalate_to_cua: \"Email\" is not visible, and instruction 2 needs it."},
      {"wait — [3 try 2] Wait | step 10/20: click — [3] Click", screen, "type ana: [4] Type \"ana\""},
      {"type — [4] Type \"— [7] x\"", screen, "key Enter: [5] Press Enter"},
      {"scroll — [6 try 2] Scroll", nothing, "wait: [6 try 3] Wait for \"Link:\""},
      {"scroll — [6 try 8] Scroll", nothing, "escalate_to_cua: \"Link:\" did not come into view in 8 steps."},
      {"key — [5] Press", picture_of({line_at(0, 0, {"Link:"})}), "wait: [7 try 1] Wait for \"Link:\""},
      {"key — [5] Press", screen, "declare_success: go/maple now"},
      {"", picture_of({line_at(0, 0, {"Access", "denied"})}), "declare_failure: \"Access denied\" is visible."},
      {"", picture_of({line_at(0, 0, {"Captcha"})}), "escalate_to_cua: The screen asks for proof of a human."},
  };
  for (const auto& [history, picture, expected] : rows) EXPECT_EQ(decision(brief, history, picture), expected);
}

}  // namespace
}  // namespace local_model
