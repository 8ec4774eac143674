#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/tools/reading.hpp"
#include "tools/report/tally.hpp"
#include "tools/report/words.hpp"

namespace report {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

// Records of one site, as the library writes them, counted.
class Counting : public test::Reading {
 protected:
  static constexpr std::int64_t noon = 1'794'000'000;

  void add(const std::string& rest, std::int64_t ts = noon, const std::string& run = "\"run-1\"") {
    std::string line = "{\"ts\": \"" + timestamp(ts) + "\", \"run_id\": " + run +
                       ", \"hotspot_id\": \"s\", \"phase\": 2, \"agent\": null, " + rest + "}";
    line.reserve(line.size() + RecordParser::padding);
    const Record* record = parser_.parse(line);
    ASSERT_NE(record, nullptr) << line;
    tally().add(*record);
  }
  static std::string proposal(const std::string& action, const std::string& reason = "why", double latency = 1400) {
    return fmt::format(
        R"("vision": {{"action": "{}", "reason": "{}", "confidence": 0.9, "x_ratio": 0.5, "y_ratio": 0.5, "model": "{}", "latency_ms": {}, "input_tokens": 10, "output_tokens": 1}})",
        action, reason, latency == 0 ? "act_loop" : "m", latency);
  }
  void miss(std::int64_t ts, const std::string& agent, const std::string& run = "\"run-1\"") {
    add(proposal("click") + ", \"cua\": " + agent, ts, run);
  }
  void step(int number, const std::string& action, std::int64_t ts, const std::string& reason = "why") {
    add(fmt::format(R"("source": "act", "step": {}, "max_steps": 8, )", number) + proposal(action, reason), ts);
  }
  void end(int number, const std::string& vision, std::int64_t ts = noon) {
    add(fmt::format(
            R"("source": "act", "step": {0}, "max_steps": 8, {1}, "final": true, "outcome": "x", "steps_used": {0})",
            number, vision),
        ts);
  }
  static std::string verdict(const char* verb) { return fmt::format(R"("vision": {{"terminal": "{}"}})", verb); }

  Tally& tally() {
    if (!tally_) tally_.emplace(options_, labels_, fixtures_ ? &*fixtures_ : nullptr);
    return *tally_;
  }
  const ModelTally& model() { return tally().sites().at("s").models.at("m"); }

  TallyOptions options_;
  Labels labels_;
  std::optional<Fixtures> fixtures_;
  RecordParser parser_;
  std::optional<Tally> tally_;
};

TEST_F(Counting, JudgesTheAgentsTextAndLabels) {
  const auto label = [](std::int64_t ts, const char* value) {
    return fmt::format(R"({{"run_id": "run-1", "hotspot_id": "s", "ts": "{}", "label": "{}"}})", timestamp(ts), value) +
           "\n";
  };
  labels_.load(file("labels", label(noon, "disagree") + label(noon, "agree") + label(noon + 1, "disagree") +
                                  label(noon + 2, "skip") + label(noon + 3, "agree") + label(noon + 99, "agree")));
  for (int i = 0; i < 3; ++i) miss(noon + i, R"({"latency_ms": 10, "text_head": "done"})");
  miss(noon + 3, R"({"latency_ms": 10, "text_head": "done"})");
  miss(noon + 3, R"({"latency_ms": 10, "text_head": "done"})");                  // shares its label
  miss(noon + 4, R"({"latency_ms": 10, "text_head": "click 0.52,0.5: done"})");  // says what was right
  miss(noon + 5, R"({"error": "AgentError: click 0.52,0.5: done"})");            // does not
  miss(noon, R"({"latency_ms": 10, "text_head": "done"})", "null");              // another run
  tally().finish();
  EXPECT_EQ(std::tuple(model().by_label, model().by_text, model().skipped, model().evidence.unjudged),
            std::tuple(2, 1, 3, 2));
  EXPECT_EQ(std::tuple(model().evidence.agreement.hits, model().evidence.agreement.trials), std::tuple(2, 3));
  EXPECT_EQ(std::tuple(labels_.size(), labels_.ambiguous(), labels_.unused()), std::tuple(5, 1, 1));
  EXPECT_EQ(model().to_judge.kept().size(), 2u);
  EXPECT_TRUE(model().worst.sorted().at(0).by_eye);
}

TEST_F(Counting, MissionsByHowTheyEnded) {
  const auto mission = [&](const std::string& vision, const std::string& last_reason = "why",
                           const char* last = "click") {
    step(1, "click", noon);
    step(2, last, noon, last_reason);
    end(2, vision);
  };
  const auto rail = [](const char* reason) { return proposal("escalate_to_cua", reason, 0); };
  mission(verdict("declare_success"));
  mission(verdict("declare_failure"));
  mission(verdict("declare_failure"), "transport error: APIConnectionError: cannot reach", "declare_failure");
  mission(verdict("declare_failure"), "The page shows a Timeout", "declare_failure");  // counts as one by contract
  mission(verdict("escalate_to_cua"));
  mission(rail("step cap (8) reached without a terminal action"));
  mission(rail("repeated identical click 3x with no progress"));
  mission(rail("low-confidence click proposal (0.42) \\u2014 not acted on: x"));
  mission(rail("low-confidence success claim (0.42) \\u2014 not trusted: x"));
  mission(rail("read-only hotspot \\u2014 vision proposed click; deferring to CUA"));
  mission(rail("aborted by caller before step 3"));
  mission(rail("act step 3 timed out (screenshot hung?)"));
  mission(rail("vision budget exhausted: 50"));
  mission(rail("execute_action(click) failed at step 2: E: x"));
  end(0, rail("aborted by caller before step 1"));  // without a step, so of no model
  step(1, "click", noon);
  step(1, "click", noon);  // begins anew: the one before has no end
  tally().finish();
  EXPECT_THAT(model().endings,
              UnorderedElementsAre(Pair("success", 1), Pair("declared failure", 1), Pair("failed call", 2),
                                   Pair("handed over", 1), Pair("step cap reached", 1), Pair("no progress", 1),
                                   Pair("unsure proposal", 1), Pair("unsure of success", 1), Pair("read-only", 1),
                                   Pair("aborted by the caller", 1), Pair("failed step", 1),
                                   Pair("call budget spent", 1), Pair("refused action", 1)));
  EXPECT_EQ(std::tuple(model().evidence.missions.hits, model().evidence.missions.trials), std::tuple(1, 8));
  EXPECT_EQ(std::tuple(model().missions_ended, model().mission_steps), std::tuple(14, 28));
  EXPECT_THAT(tally().sites().at("s").unasked_missions, ElementsAre(Pair("aborted by the caller", 1)));
  EXPECT_THAT(tally().sites().at("s").failures.by_kind(),
              UnorderedElementsAre(Pair("transport error: APIConnectionError", 1), Pair("time-out", 1)));
  EXPECT_EQ(tally().unfinished_missions(), 2);
}

TEST_F(Counting, PairsPicturesOnlyWhenNoOtherFits) {
  const std::string folder = folder_.path() / "fx";
  const auto store = [&](std::int64_t second, const char* run = "run-1") {
    file(fmt::format("fx/s/{}_{}.png", run, second), "x");
  };
  store(noon - 2);                     // asked 1.4 s before the record
  store(noon + 98), store(noon + 99);  // two fit
  store(noon + 199);                   // fits two records
  store(noon + 270);                   // the agent took 30 s
  store(noon + 398);                   // an agent that failed: any time before the call, and no one else wants it
  store(noon + 498, "run");            // a record without a run
  for (const int second : {998, 1000, 1001}) store(noon + second);
  file("fx/s/notes.txt", "x"), file("fx/readme", "x");
  fixtures_.emplace(folder);
  EXPECT_EQ(fixtures_->size(), 10);
  options_.to_judge = 100;
  const std::string fast = R"({"latency_ms": 10, "text_head": ""})";
  for (const int second : {0, 100, 200, 201, 600}) miss(noon + second, fast);
  miss(noon + 300, R"({"latency_ms": 30400, "text_head": ""})");
  miss(noon + 400, R"({"error": "AgentError: gone"})");
  miss(noon + 500, fast, "null");
  for (int i = 0; i < 3; ++i) step(i + 1, "click", noon + std::array{1000, 1001, 1003}.at(static_cast<std::size_t>(i)));
  end(3, verdict("declare_success"), noon + 1003);
  tally().finish();

  std::string found;
  for (const auto& moment : model().to_judge.kept()) {
    const Picture picture = fixtures_->find(moment);
    found += picture.state == Picture::State::found       ? picture.path.substr(folder.size()) + " "
             : picture.state == Picture::State::ambiguous ? "ambiguous "
                                                          : "none ";
  }
  const auto path = [](int second, const char* run = "run-1") {
    return fmt::format("/s/{}_{}.png ", run, noon + second);
  };
  EXPECT_EQ(found, path(-2) + "ambiguous ambiguous ambiguous none " + path(270) + path(398) + path(498, "run"));

  const Mission mission = model().missions.sorted().at(0);
  std::string strip;
  for (const auto& picture : fixtures_->find(mission)) strip += picture.path.substr(folder.size()) + " ";
  EXPECT_EQ(strip, path(998) + path(1000) + path(1001)) << "one each, in order";
}

TEST_F(Counting, LeavesOutWhatIsFilteredOut) {
  options_.since = noon;
  options_.models = {"m"};
  add("\"source\": \"dom_success\", \"dom_ground_truth\": {\"label\": \"x\"}, " + proposal("click"), noon - 1);
  add("\"source\": \"dom_success\", \"dom_ground_truth\": {\"label\": \"x\"}, " + proposal("click"), noon);
  add("\"source\": \"dom_success\", \"dom_ground_truth\": {}, " + proposal("click"), noon);
  add(R"("source": "dom_success", "dom_ground_truth": {}, "vision": {"action": "click", "model": "other"})", noon);
  EXPECT_EQ(tally().counted(), 2);
  EXPECT_EQ(model().evidence.agreement.trials, 1) << "an empty truth does not count";
  EXPECT_EQ(model().evidence.unplaced_clicks, 1);
  EXPECT_EQ(tally().sites().at("s").models.size(), 1u);
}

}  // namespace
}  // namespace report
