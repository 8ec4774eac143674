#include <gmock/gmock.h>
#include <zlib.h>
#include <zstd.h>

#include <fstream>

#include "tests/support/environment.hpp"
#include "tests/tools/planted_log.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/log_reader.hpp"
#include "tools/report/tally.hpp"

namespace report {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

class Reading : public testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content) {
    const auto path = folder_.path() / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  InputStats read(const std::vector<std::string>& paths) {
    return read_logs(
        paths, [&](const Record& record) { sites_.emplace_back(record.site); }, [](std::uint64_t) {});
  }
  template <class Action>
  static std::string error_of(Action action) {
    try {
      action();
      return "no error";
    } catch (const InputError& error) {
      return error.what();
    }
  }

  vision::test::ScratchDirectory folder_;
  std::vector<std::string> sites_;
};

std::string gzip(const std::string& text) {
  std::string out(compressBound(text.size()) + 32, '\0');
  z_stream stream{};
  deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::string zstd(const std::string& text) {
  std::string out(ZSTD_compressBound(text.size()), '\0');
  out.resize(ZSTD_compress(out.data(), out.size(), text.data(), text.size(), 3));
  return out;
}

TEST_F(Reading, SkipsWhatIsTornOrForeign) {
  test::PlantedLog log(1);
  const std::string one = log.record(1), two = log.record(2);
  const std::string other_source =
      R"({"ts": "2026-11-16T19:05:00Z", "hotspot_id": "s", "source": "else", "vision": {"action": "click"}})";
  const std::string bad_time =
      R"({"ts": "2026-13-16T19:05:00Z", "hotspot_id": "s", "source": "act", "vision": {"action": "click"}})";
  const std::string endless = "{\"x\": \"" + std::string(20 << 20, 'x') + "\"}";
  std::string content;
  for (const std::string& line :
       {one, one.substr(0, 300), std::string(), std::string("not JSON"), std::string("[1, 2]"), other_source, bad_time,
        std::string("\xff\xfe"), endless, one.substr(0, 99) + two, two}) {
    content += line + "\n";
  }
  const InputStats stats = read({file("log", content + log.record(3))});  // the last line without its end
  EXPECT_THAT(sites_, ElementsAre("site-1", "site-2", "site-3"));
  EXPECT_EQ(stats.records, 3);
  EXPECT_EQ(stats.skipped, 9);
  EXPECT_EQ(stats.bytes, static_cast<std::int64_t>(content.size() + log.record(3).size()));
}

TEST_F(Reading, UnpacksByTheFirstBytes) {
  test::PlantedLog log(2);
  std::string first, second;
  for (int i = 0; i < 3000; ++i) first += log.record(1) + "\n";
  for (int i = 0; i < 2000; ++i) second += log.record(2) + "\n";
  for (const auto pack : {gzip, zstd}) {
    sites_.clear();
    const std::string packed = pack(first) + pack(second);  // as appended to by a log rotation
    const InputStats stats = read({file("whole", packed)});
    EXPECT_EQ(stats.records, 5000);
    EXPECT_EQ(stats.bytes, static_cast<std::int64_t>(first.size() + second.size()));
    EXPECT_THAT(stats.damaged, ElementsAre());

    const InputStats cut = read({file("cut", packed.substr(0, packed.size() - 5000)), file("plain", log.record(3))});
    EXPECT_GT(cut.records, 3000);
    EXPECT_LT(cut.records, 5000);
    EXPECT_EQ(sites_.back(), "site-3") << "the next file is read all the same";
    EXPECT_THAT(cut.damaged, ElementsAre(HasSubstr("data end too early")));

    std::string damaged = packed;
    damaged[packed.size() / 2] ^= 0x55;
    damaged[packed.size() / 2 + 1] ^= 0x55;
    EXPECT_EQ(read({file("damaged", damaged)}).damaged.size(), 1u);
  }
}

TEST_F(Reading, FindsFilesByGlobOnce) {
  const std::string a = file("logs/a.jsonl", ""), b = file("logs/b.jsonl", "");
  const std::string folder = folder_.path() / "logs";
  EXPECT_THAT(expand({b, folder + "/*.jsonl", folder + "/../logs/a.jsonl", "-"}), ElementsAre(b, a, "-"));
  EXPECT_THAT(error_of([&] { expand({folder + "/*.gz"}); }), HasSubstr("nothing matches it"));
  EXPECT_THAT(error_of([&] { read({folder}); }), HasSubstr("is a folder"));
  EXPECT_THAT(error_of([&] { read({folder + "/none"}); }), HasSubstr("none: No such file"));
}

TEST_F(Reading, RefusesMalformedLabelsAndPrices) {
  const std::string good = R"({"run_id": null, "hotspot_id": "s", "ts": "2026-11-16T19:05:00Z", "label": "agree"})"
                           "\n";
  const std::pair<const char*, const char*> labels[] = {
      {"{", ":2: not a label: not a JSON object"},
      {R"({"hotspot_id": "s", "ts": "today", "label": "agree"})", "ts is \"today\""},
      {R"({"ts": "2026-11-16T19:05:00Z", "label": "agree"})", "no text \"hotspot_id\""},
      {R"({"hotspot_id": "s", "ts": "2026-11-16T19:05:00Z", "label": "yes"})", "label is \"yes\""}};
  for (const auto& [line, message] : labels) {
    EXPECT_THAT(error_of([&] { Labels().load(file("labels", good + line)); }), HasSubstr(message));
  }
  const std::pair<const char*, const char*> prices[] = {
      {"[]", "no JSON object with \"models\""},
      {R"({"models": {}})", "no text \"as_of\""},
      {R"({"as_of": "soon", "models": {}})", "as_of is \"soon\""},
      {R"({"as_of": "2026-11-24", "models": {"m": {"input": -1, "output": 2}}})", "\"m\" has no input price"}};
  for (const auto& [text, message] : prices) {
    EXPECT_THAT(error_of([&] { Prices::load(file("prices", text)); }), HasSubstr(message));
  }
}

TEST(PricesTable, PricesDatedNamesToo) {
  const Prices prices = Prices::built_in();
  const Spend spend{2, 1'000'000, 100'000};
  EXPECT_DOUBLE_EQ(prices.cost("claude-haiku-4-5", spend).value(), 1.5);
  EXPECT_DOUBLE_EQ(prices.cost("claude-haiku-4-5-20251001", spend).value(), 1.5);
  EXPECT_FALSE(prices.cost("claude-haiku-4-5-latest", spend));
}

TEST(Compare, JudgesVerbAndPlace) {
  struct {
    const char* name;
    const char* action;
    std::optional<double> x, y;
    Truth truth;
    bool same_action;
    std::optional<bool> same_place;
    std::optional<double> distance;
  } const rows[] = {
      {"near", "click", 0.5, 0.5, {.action = "click", .x_ratio = 0.4, .y_ratio = 0.6}, true, true, 150.9},
      {"just too far", "click", 0.5, 0.5, {.action = "click", .x_ratio = 0.399, .y_ratio = 0.5}, true, false, 129.3},
      {"in a wide box",
       "click",
       0.8,
       0.5,
       {.action = "click", .x_ratio = 0.5, .y_ratio = 0.5, .w_ratio = 0.7, .h_ratio = 0.1},
       true,
       true,
       384},
      {"beside a small box",
       "click",
       0.53,
       0.5,
       {.action = "click", .x_ratio = 0.5, .y_ratio = 0.5, .w_ratio = 0.05, .h_ratio = 0.1},
       true,
       false,
       38.4},
      {"in the log's own viewport",
       "click",
       0.5,
       0.4,
       {.action = "click", .x_ratio = 0.5, .y_ratio = 0.5, .viewport_w = 400, .viewport_h = 1000},
       true,
       true,
       100},
      {"a click without a place",
       "click",
       {},
       {},
       {.action = "click", .x_ratio = 0.5, .y_ratio = 0.5},
       true,
       false,
       {}},
      {"no true place", "click", 0.5, 0.5, {.action = "click"}, true, {}, {}},
      {"another verb", "scroll", {}, {}, {.action = "click", .x_ratio = 0.5, .y_ratio = 0.5}, false, {}, {}},
      {"typing", "type", {}, {}, {.action = "type"}, true, {}, {}},
  };
  for (const auto& row : rows) {
    Proposal proposal;
    proposal.action = row.action;
    proposal.x_ratio = row.x;
    proposal.y_ratio = row.y;
    const Comparison found = compare(proposal, row.truth, {}).value();
    EXPECT_EQ(found.same_action, row.same_action) << row.name;
    EXPECT_EQ(found.same_place, row.same_place) << row.name;
    EXPECT_NEAR(found.distance_px.value_or(-1), row.distance.value_or(-1), 0.1) << row.name;
  }
  EXPECT_FALSE(compare({}, {}, {})) << "no truth was recorded";
}

TEST(FirstAction, IsAVerbAPlaceAndAColon) {
  const auto click = first_action("click 0.52,0.27: the export panel is open").value();
  EXPECT_EQ(click.action, "click");
  EXPECT_EQ(click.x_ratio, 0.52);
  EXPECT_EQ(click.y_ratio, 0.27);
  EXPECT_EQ(first_action("type: the title").value().action, "type");
  for (const char* other : {"", "click", "click the button: done", "I clicked: yes", "click 0.5: x", "click ,: x"}) {
    EXPECT_FALSE(first_action(other)) << other;
  }
}

TEST(FailureKind, NamesWhatFailed) {
  const std::pair<Failure, const char*> rows[] = {
      {{true, "vision timeout after 20.0s"}, "time-out"},
      {{false, "transport error: RateLimitError: slow down"}, "transport error: RateLimitError"},
      {{false, "unexpected error: BadRequestError: no such model"}, "refusal: BadRequestError"},
      {{false, "unexpected error: bad_alloc: std::bad_alloc"}, "unexpected error: bad_alloc"},
      {{false, "model did not return propose_action tool call"}, "no tool call"},
      {{false, "BudgetExceeded: 50 calls"}, "call budget spent"},
      {{false, "runtime_error: Target closed"}, "page: runtime_error"},
      {{false, "<b>?"}, "page: unnamed"}};
  for (const auto& [failure, kind] : rows) EXPECT_EQ(failure_kind(failure), kind);
}

// Records of one site, as the library writes them, counted.
class Counting : public Reading {
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
