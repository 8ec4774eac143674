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
  const std::tuple<const char*, const char*, bool, std::string> rows[] = {
      {"a/b", "a/b", true, ""},
      {"a/c", "a/b", true, "The answer is wrong: the application says a/b, the model reported a/c."},
      {"", "", true, "The answer is wrong: the application has given out no link."},
      {"a/b", "a/b", false, "The answer is right, but"},
  };
  for (const auto& [reason, expected, invited, sentence] : rows) {
    MissionEnd end{vision::ActionResult("declare_success", reason, 0.9, "")};
    end.expected = expected;
    end.invited_rightly = invited;
    EXPECT_EQ(end.right(), sentence.empty());
    EXPECT_TRUE(end.right() || failure_sentence(end).starts_with(sentence)) << sentence;
  }
}

}  // namespace
}  // namespace demo
