#include "tests/chromium/browser_fixture.hpp"
#include "tools/report/labels.hpp"
#include "tools/report/pages.hpp"
#include "tools/report/words.hpp"

namespace report {
namespace {

using vision::chromium::test::run;
using vision::chromium::test::value_of;

constexpr std::int64_t noon = 1'794'000'000;
constexpr const char* hostile = "<img src=x onerror='document.title=1'>\"&";

// A page of three proposals that wait to be judged, opened as a reader does.
class ReportPage : public vision::chromium::test::PageTest {
 protected:
  void SetUp() override {
    PageTest::SetUp();
    std::filesystem::create_directories("fx/s");
    std::ofstream("fx/s/run-1_" + std::to_string(noon - 1) + ".png") << run(page_->screenshot({})).view();
    fixtures_.emplace("fx");
    count();
    const Report report = make_report(*tally_, options_, {}, Prices::built_in());
    const auto path = std::filesystem::absolute(write_pages(report, &*fixtures_, "report.html", false));
    run(page_->navigate("file://" + path.string()));
  }

  void count() {
    tally_.emplace(options_, labels_, &*fixtures_);
    for (int i = 0; i < 3; ++i) {
      Record record;
      const std::string ts = timestamp(noon + 60 * i);
      record.ts = noon + 60 * i;
      record.ts_text = ts;
      record.site = "s";
      if (i < 2) record.run = "run-1";
      record.agent = {800.0, hostile, false};
      record.proposal.emplace();
      record.proposal->action = "click";
      record.proposal->reason = hostile;
      record.proposal->model = "m";
      record.proposal->x_ratio = record.proposal->y_ratio = 0.5;
      record.proposal->latency_ms = 900;
      tally_->add(record);
    }
    tally_->finish();
  }
  std::string on_page(const std::string& expression) { return value_of(*page_, expression); }
  void press(const char* key) { run(page_->keyboard().press(key)); }

  vision::test::ScratchDirectory folder_;
  TallyOptions options_;
  Labels labels_;
  std::optional<Fixtures> fixtures_;
  std::optional<Tally> tally_;
};

TEST_F(ReportPage, IsJudgedByKeysAndItsLabelsCount) {
  const std::string labels_now = "[...document.querySelectorAll('.question')].map((q) => q.dataset.label ?? '').join()";
  const std::string focus = "document.activeElement.id";
  EXPECT_EQ(on_page("document.querySelector('.judging button').disabled"), "true");
  press("a");
  EXPECT_EQ(on_page(labels_now), "\"agree,,\"");
  EXPECT_EQ(on_page(focus), "\"site-1-m1-q2\"");
  press("D");
  press("s");
  EXPECT_EQ(on_page(labels_now), "\"agree,disagree,skip\"");
  press("k");
  EXPECT_EQ(on_page(focus), "\"site-1-m1-q2\"");
  press("Control+a");  // not a judgement
  press("Tab");        // into the choice, which is made without letters too
  press("ArrowLeft");
  EXPECT_EQ(on_page(labels_now), "\"agree,agree,skip\"");
  press("d");
  EXPECT_EQ(on_page("document.querySelector('[role=status]').textContent"), "\"3 of 3 judged\"");

  on_page("saved = [], URL.createObjectURL = (blob) => { saved.push(blob); return '#'; }, 0");
  on_page("document.querySelector('.judging button').click()");
  std::ofstream("labels.jsonl") << run(page_->evaluate("saved[0].text()")).as_string().c_str();
  labels_.load("labels.jsonl");
  count();
  const ModelTally& model = tally_->sites().at("s").models.at("m");
  EXPECT_EQ(std::tuple(model.by_label, model.skipped, model.evidence.unjudged), std::tuple(2, 1, 0));
  EXPECT_EQ(model.evidence.agreement.hits, 1);
}

TEST_F(ReportPage, IsSafeAndReadable) {
  EXPECT_EQ(on_page("document.title"), "\"When may it act?\"") << "text from the log is not markup";
  EXPECT_EQ(on_page("document.querySelectorAll('img').length"), "0");
  EXPECT_EQ(on_page("performance.getEntriesByType('resource').length"), "0") << "nothing is loaded";
  EXPECT_EQ(on_page("document.querySelectorAll('figure').length"), "1");
  EXPECT_EQ(on_page("document.querySelectorAll('.missing').length"), "2");
  EXPECT_EQ(on_page("[...document.querySelectorAll('[role=img]')].every((e) => e.getAttribute('aria-label'))"), "true");
  EXPECT_EQ(on_page("[...document.querySelectorAll('fieldset')].every((f) => f.querySelector('legend'))"), "true");
  EXPECT_EQ(on_page("(() => { let level = 1; return [...document.querySelectorAll('h1,h2,h3,h4,h5')].every((h) => {"
                    " const deeper = h.tagName[1] - level; level = Number(h.tagName[1]); return deeper <= 1; }); })()"),
            "true")
      << "no heading level is skipped";
  EXPECT_EQ(
      on_page(
          "(() => { document.body.style.width = '360px'; const fits = [...document.querySelectorAll('main > *')]"
          ".every((e) => e.getBoundingClientRect().right <= 360); document.body.style.width = ''; return fits; })()"),
      "true")
      << "on a phone only tables scroll sideways";
}

}  // namespace
}  // namespace report
