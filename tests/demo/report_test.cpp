#include "examples/demo/report.hpp"

#include <gtest/gtest.h>

#include "examples/demo/console.hpp"

namespace demo {
namespace {

TEST(Report, HostileTextStaysText) {
  vision::ActionResult click("click", "<script>alert(1)</script> \"&' \xff\x01", 0.9, "<img src=x onerror=y>");
  click.x_ratio = 0.25;
  click.y_ratio = 0.5;
  click.text = "</section>";
  MissionEnd end{vision::ActionResult("declare_success", "</p><b>", 0.9, "")};
  const ReportSummary summary{"<title>", "<model>", end.verdict, "</dl>", false, {}};
  const std::string page =
      render_report({{vision::Bytes(std::string("\x89PNG")), click}, {vision::Bytes(), click}}, summary);
  for (const char* leak : {"<script", "onerror=y>", "</p><b>", "<model>", "</dl></p>", "\xff", "\x01"}) {
    EXPECT_EQ(page.find(leak), page.npos) << leak;
  }
  EXPECT_NE(page.find("src=\"data:image/png;base64,iVBORw==\""), page.npos);
  EXPECT_NE(page.find("left:25.000%;top:50.000%"), page.npos);
  const std::string line = step_line(3, click);
  EXPECT_EQ(line.find_first_of("\x01\n"), line.npos);
}

TEST(Verdict, IsRightOnlyWithTheRightAnswerAndTheRightPerson) {
  const struct {
    const char *action, *reason, *expected;
    bool invited;
    const char* sentence;  // its beginning; empty for a success
  } cases[] = {
      {"declare_success", "a/b", "a/b", true, ""},
      {"declare_success", "a/c", "a/b", true, "The answer is wrong: the application says a/b, the model reported a/c."},
      {"declare_success", "", "", true, "The answer is wrong: the application has given out no link."},
      {"declare_success", "a/b", "a/b", false, "The answer is right, but"},
      {"escalate_to_cua", "a/b", "a/b", true, "The mission did not succeed: a/b."},
      {"declare_failure", "unexpected error: AuthenticationError: no", "", false, "The mission did not succeed: unex"},
  };
  for (const auto& c : cases) {
    MissionEnd end{vision::ActionResult(c.action, c.reason, 0.9, "")};
    end.expected = c.expected;
    end.invited_rightly = c.invited;
    EXPECT_EQ(end.right(), *c.sentence == '\0');
    EXPECT_EQ(failure_sentence(end).rfind(c.sentence, 0), 0u) << failure_sentence(end);
    EXPECT_EQ(failure_sentence(end).empty(), end.right());
  }
}

TEST(Options, HostedModelNeedsANameAndAKey) {
  const auto choose = [](const DemoOptions& options, const char* key, const char* heavy) {
    return choose_model(options, [=](const char* name) -> const char* {
      if (std::string(name) == "ANTHROPIC_API_KEY") return key;
      return std::string(name) == "VISION_HEAVY_MODEL" ? heavy : nullptr;
    });
  };
  EXPECT_TRUE(choose({}, nullptr, "h").local);
  EXPECT_TRUE(choose({}, "", "h").local);
  EXPECT_TRUE(choose(parse_options({"--local"}), "k", "h").local);
  EXPECT_THROW(choose({}, "k", nullptr), UsageError);
  const ModelChoice one = choose({}, "k", "h");
  EXPECT_EQ(one.light + "/" + one.heavy, "h/h");
  const ModelChoice two = choose(parse_options({"--light", "l"}), "k", "h");
  EXPECT_EQ(two.light + "/" + two.heavy, "l/h");
  const std::vector<std::string> bad[] = {{"--dpr=2"},      {"--width"},        {"--dpr", "nan"},
                                          {"--width", "0"}, {"--width", "1e3"}, {"--max-steps", "-1"}};
  for (const auto& arguments : bad) EXPECT_THROW(parse_options(arguments), UsageError) << arguments.back();
}

}  // namespace
}  // namespace demo
