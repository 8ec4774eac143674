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
  const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x04\0\0\0\x02", 24);
  const std::string page =
      render_report({{vision::Bytes(png), click}, {vision::Bytes(), click}, {vision::Bytes("<img>"), click}}, summary);
  for (const char* leak : {"<script", "onerror=y>", "</p><b>", "<model>", "</dl></p>", "<img", "\xff", "\x01"}) {
    EXPECT_EQ(page.find(leak), page.npos) << leak;
  }
  for (const char* wanted : {"viewBox=\"0 0 4 2\" role=\"img\"", "href=\"data:image/png;base64,iVBORw0KGgoAAAAN",
                             "left:25.000%;top:50.000%;\"></span></span></figure>", "<use href=\"#shot-1-image\"/>"}) {
    EXPECT_NE(page.find(wanted), page.npos) << wanted;
  }
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
