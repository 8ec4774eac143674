#include "examples/demo/report.hpp"

#include <gtest/gtest.h>

#include "examples/demo/console.hpp"

namespace demo {
namespace {

using vision::ActionResult;

TEST(Report, HostileTextStaysText) {
  ActionResult click("click", "<script>alert(1)</script> \"&' \xff\x01", 0.9, "<img src=x onerror=y>");
  click.x_ratio = 0.25;
  click.y_ratio = 0.5;
  click.text = "</section>";
  const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x04\0\0\0\x02", 24);
  MissionRun run("<id>");
  run.brief = "</pre>";
  run.steps = {{vision::Bytes(png), click}, {vision::Bytes(), click}, {vision::Bytes("<img>"), std::nullopt}};
  run.expected = "</dl>";
  run.verdict.emplace("declare_success", "</p><b>", 0.9, "");
  const std::string page = render_report(run, {false, "", "<model>", "<model>"});
  for (const char* leak :
       {"<script", "onerror=y>", "</p><b>", "<id>", "<model>", "</pre></pre>", "</dl></p>", "<img", "\xff", "\x01"}) {
    EXPECT_EQ(page.find(leak), page.npos) << leak;
  }
  for (const char* wanted : {"viewBox=\"0 0 4 2\" role=\"img\"", "href=\"data:image/png;base64,iVBORw0KGgoAAAAN",
                             "left:25.000%;top:50.000%;\"></span></span><fig", "<use href=\"#shot-1-image\"/>"}) {
    EXPECT_NE(page.find(wanted), page.npos) << wanted;
  }
  EXPECT_EQ(step_line(3, click).find_first_of("\x01\n"), step_line(3, click).size() - 1);
}

TEST(Verdict, IsRightOnlyWithTheRightAnswerAndTheRightPerson) {
  const std::tuple<const char*, const char*, bool, bool, std::string> rows[] = {
      {"a/b", "a/b", true, true, "The mission succeeded"},
      {"a/c", "a/b", true, false, "The answer is wrong: the application issued a/b."},
      {"", "", true, false, "The answer is wrong: the application issued no link."},
      {"a/b", "a/b", false, false, "The answer is right, but"},
  };
  for (const auto& [reason, expected, invited, right, sentence] : rows) {
    MissionRun run("");
    run.verdict.emplace("declare_success", reason, 0.9, "");
    run.expected = expected;
    run.invited_rightly = invited;
    EXPECT_EQ(run.right(), right) << sentence;
    EXPECT_TRUE(headline(run).starts_with(sentence)) << headline(run);
  }
}

TEST(Options, TakeBothFormsAndRefuseTheRest) {
  const auto o = parse_options({"--width=800", "--height", "600", "--out=a=b", "--local"});
  EXPECT_EQ(std::tuple(o.width, o.height, o.out.string(), o.local), std::tuple(800, 600, "a=b", true));
  for (const char* bad : {"--bogus", "--out", "--out=", "--width=1e3", "--local=1", "width=800"}) {
    EXPECT_THROW(parse_options({bad, "--local"}), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace demo
