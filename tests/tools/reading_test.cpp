#include <gmock/gmock.h>
#include <zlib.h>
#include <zstd.h>

#include "tests/tools/planted_log.hpp"
#include "tests/tools/reading.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/log_reader.hpp"
#include "tools/report/tally.hpp"

namespace report {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

using test::Reading;

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
  const std::string one = log.record(1), two = log.record(2), last = log.record(3);  // each call makes another one
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
  const InputStats stats = read({file("log", content + last)});  // the last line without its end
  EXPECT_THAT(sites_, ElementsAre("site-1", "site-2", "site-3"));
  EXPECT_EQ(stats.records, 3);
  EXPECT_EQ(stats.skipped, 9);
  EXPECT_EQ(stats.bytes, static_cast<std::int64_t>(content.size() + last.size()));
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

}  // namespace
}  // namespace report
