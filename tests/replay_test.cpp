#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <regex>
#include <typeinfo>

#include "tests/support/scripted_host.hpp"
#include "vision/client/api_error.hpp"
#include "vision/replay/cassette_client.hpp"
#include "vision/replay/cassette_page.hpp"
#include "vision/replay/record_mission.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace {

using test::pause;
using test::proposal;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace asio = boost::asio;
using enum CassetteMode;

std::shared_ptr<Cassette> open(CassetteMode mode, bool by_order = false) {
  return std::make_shared<Cassette>("tape", CassetteOptions().mode(mode).by_order(by_order));
}

class Replay : public test::ScriptedHost {
 protected:
  static MessagesRequest request(const std::string& text, const std::string& picture = "PNG") {
    return MessagesRequest("m", std::make_shared<const std::string>(request_prefix("m")), Bytes(picture), text);
  }
  /// The answer's text, or the error's.
  std::string ask(MessagesClient& asked, const MessagesRequest& question) {
    try {
      return text::plain_text(loop.run(asked.create(question)));
    } catch (...) {
      return text::full_exception_text(std::current_exception());
    }
  }
  void record(const std::vector<std::string>& texts) {
    CassetteClient taped(open(all), model);
    for (const auto& text : texts) {
      model->steps = {{text::to_json(boost::json::string(text + "!")), nullptr}};
      ask(taped, request(text));
    }
  }
};

struct Scene {
  const char* name;
  std::function<void(test::ScriptedModel&)> script;
  std::function<asio::awaitable<void>(std::string)> before = nullptr;
  std::function<void(ActLoopOptions&)> set = [](ActLoopOptions&) {};
};

asio::awaitable<void> fail_to(std::string what, std::string operation) {
  co_await pause(0.25);
  if (operation.starts_with(what)) throw test::HostError("cannot " + what);
}

asio::awaitable<void> hang_at_screenshot(std::string operation) {
  if (operation == "screenshot") co_await pause(1e9);
}

asio::awaitable<bool> later(std::shared_ptr<int> countdown) {
  co_await pause(0.1);
  co_return --*countdown == 0;
}

const std::string at = R"(, "x_ratio": 0.5, "y_ratio": 0.25)", typed = R"(, "text": "ana\u00e9")";
const auto click = [](test::ScriptedModel& m) { m.answer(proposal("click", 0.9, at)); };
const Scene scenes[] = {
    {"a success after a retry",
     [](auto& m) {
       m.fail(RateLimitError("slow", {429, "rate_limit_error", "r1"})).answer(proposal("click", 0.9, at), 1.7);
       m.answer(proposal("type", 0.9, typed)).answer(proposal("scroll", 0.9, R"(, "scroll_dy_ratio": 0.3)"));
       m.answer(proposal("key", 0.9, R"(, "key": "Enter")")).answer(proposal("declare_success", 0.9));
     }},
    {"equal requests", [](auto& m) { m.answer(proposal("wait", 0.9)).answer(proposal("declare_success", 0.9)); }},
    {"a time-out", [](auto& m) { m.answer("", 1e9); }},
    {"an error of the host's", [](auto& m) { m.fail(test::HostError("gone")); }},
    {"an unreachable endpoint",
     [](auto& m) { m.fail(APITimeoutError("no")).fail(APIConnectionError("no", APIConnectionError::Reason::no_tls)); }},
    {"an action that fails", click, [](std::string o) { return fail_to("click", o); }},
    {"a screenshot that fails", click, [](std::string o) { return fail_to("screenshot", o); }},
    {"an unknown pixel ratio", click, [](std::string o) { return fail_to("evaluate", o); }},
    {"a screenshot that hangs", click, hang_at_screenshot},
    {"an abort", click, nullptr, [](auto& options) { options.should_abort([n = 2]() mutable { return --n == 0; }); }},
    {"a late abort", click, nullptr,
     [](auto& options) { options.should_abort_later([n = std::make_shared<int>(2)] { return later(n); }); }},
};

TEST_F(Replay, AMissionReplaysByteForByte) {
  struct Ending {
    ActionResult verdict;
    std::string log;
    double seconds;
  };
  const auto run = [&](const std::shared_ptr<Cassette>& cassette, CassettePage& cassette_page,
                       const std::shared_ptr<CassetteClient>& cassette_client, const Scene* recorded) {
    std::filesystem::remove("log");
    const test::ScopedEnv log_here("KX_VISION_SHADOW_LOG", "log"), fixtures("KX_VISION_FIXTURE_AUTO", "1");
    test::VirtualLoop own(recorded ? std::chrono::seconds(1'800'000'000) : cassette->began());
    VisionClient vision(cassette_client);
    ActLoopOptions options({{"phase", 2}}, "site");
    options.vision(vision).run_id("run").mission_prompt("Share.");
    if (recorded) recorded->set(options);
    const auto verdict = own.run(record_mission(cassette, cassette_page, std::move(options)));
    return Ending{verdict, test::read_file("log"), own.seconds()};
  };
  for (const Scene& scene : scenes) {
    SCOPED_TRACE(scene.name);
    model->steps.clear();
    scene.script(*model);
    page.before = scene.before;
    auto recording = open(all);
    CassettePage recorded_page(recording, page);
    const Ending recorded = run(recording, recorded_page, std::make_shared<CassetteClient>(recording, model), &scene);
    const auto replay = open(none);
    CassettePage replayed_page(replay);
    const Ending replayed = run(replay, replayed_page, std::make_shared<CassetteClient>(replay), nullptr);
    EXPECT_EQ(replayed.verdict, recorded.verdict) << replayed.verdict.reason << "\n" << recorded.verdict.reason;
    EXPECT_EQ(replayed.log, recorded.log);
    EXPECT_NE(replayed.log, "");
    EXPECT_EQ(replayed.seconds, recorded.seconds);
    EXPECT_THAT(replay->misses(), IsEmpty());
    EXPECT_THAT(replay->unused(), IsEmpty());
  }
}

TEST_F(Replay, TheModeDecidesWhoAnswers) {
  struct Row {
    CassetteMode mode;
    std::vector<std::string> recorded, asked;
    std::string answers;  // "!" by the recording, "?" by the model, "-" by nobody
    std::vector<std::string> lines;
  };
  const Row rows[] = {
      {none, {"a", "b"}, {"b", "a", "c"}, "!!-", {"a!", "b!"}},
      {once, {}, {"a", "a", "b"}, "???", {"a?", "a?", "b?"}},
      {once, {"a"}, {"a", "a", "b"}, "!--", {"a!"}},
      {new_episodes, {"a", "a"}, {"a", "b", "a", "a"}, "!?!?", {"a!", "a!", "b?", "a?"}},
      {all, {"a", "b"}, {"a", "a"}, "??", {"a?", "a?"}},
      {all, {"a", "b"}, {}, "", {"a!", "b!"}},
  };
  for (const Row& row : rows) {
    std::filesystem::remove_all("tape");
    if (!row.recorded.empty()) record(row.recorded);
    std::string answers;
    {
      CassetteClient taped(open(row.mode), model);
      for (const auto& text : row.asked) {
        model->steps = {{"\"" + text + "?\"", nullptr}};
        const std::string answer = ask(taped, request(text));
        answers += answer.starts_with("CassetteMiss: ") ? '-' : answer.back();
      }
    }
    EXPECT_EQ(answers, row.answers);
    std::vector<std::string> lines;
    std::map<std::string, int> occurrences;
    for (const auto& line : test::read_lines("tape/cassette.jsonl")) {
      const auto value = boost::json::parse(line);
      lines.emplace_back(value.at("response").as_string());
      EXPECT_EQ(value.at("occurrence"), ++occurrences[std::string(value.at("key").as_string())]) << line;
    }
    EXPECT_EQ(lines, row.lines);
  }
}

TEST_F(Replay, AnErrorIsReplayedAsWhatItWas) {
  struct Derived : APIConnectionError {
    using APIConnectionError::APIConnectionError;
    const char* kind_name() const noexcept override { return "GatewayDown"; }
  };
  const std::exception_ptr errors[] = {
      std::make_exception_ptr(APITimeoutError("slow", APIConnectionError::Reason::timed_out)),
      std::make_exception_ptr(APIConnectionError("old", APIConnectionError::Reason::expired_certificate)),
      std::make_exception_ptr(RateLimitError("r", {429, "rate_limit_error", "id"})),
      std::make_exception_ptr(InternalServerError("i", {529, "overloaded_error", "id"})),
      std::make_exception_ptr(BadRequestError("b", {400, "", ""})),
      std::make_exception_ptr(APIStatusError("s", {402, "billing", ""})),
      std::make_exception_ptr(APIResponseValidationError("v")),
      std::make_exception_ptr(Derived("d")),
      std::make_exception_ptr(test::HostError("h")),
  };
  const auto told = [&](MessagesClient& asked) {
    try {
      (void)loop.run(asked.create(request("a")));
    } catch (const APIStatusError& e) {
      return std::string(typeid(e).name()) + e.kind_name() + e.what() + std::to_string(e.status()) + e.type() +
             e.request_id();
    } catch (const APIConnectionError& e) {
      return std::string(e.kind_name()) + e.what() + std::to_string(static_cast<int>(e.reason()));
    } catch (...) {
      return text::full_exception_text(std::current_exception());
    }
    return std::string("no error");
  };
  for (const auto& error : errors) {
    model->steps = {{"", error, 0.5}};
    CassetteClient recording(open(all), model);
    const std::string recorded = told(recording);
    CassetteClient replay(open(none));
    const double start = loop.seconds();
    EXPECT_EQ(told(replay), recorded);
    EXPECT_EQ(loop.seconds() - start, 0.5) << "after the recorded latency";
  }
}

TEST_F(Replay, AMissNamesWhatDiffers) {
  record({"# Task\nOpen the share dialog", "other"});
  const auto cassette = open(none);
  CassetteClient taped(cassette);
  const std::string start = "CassetteMiss: the recording in tape has no such request: ",
                    compared = start + "compared with call ";
  EXPECT_THAT(
      ask(taped, request("other", "PNG2")),
      testing::MatchesRegex(compared + "2, only the picture differs; "
                                       "messages.0..content.0..source.data differs at byte 0: recorded \"[0-9a-f]*"
                                       "\\.\\.\\.\", asked \"[0-9a-f]*\\.\\.\\.\""));
  EXPECT_EQ(ask(taped, request("# Task\nOpen the Share dialog")),
            compared +
                "1, the picture is the same; messages[0].content[1].text differs at byte 16: "
                "recorded \"share dialog\", asked \"Share dialog\"");
  EXPECT_THAT(ask(taped, request("", "2")),
              HasSubstr("not only the picture differs; messages[0].content[1].text differs"));
  EXPECT_EQ(cassette->unused().size(), 2u);
  for (const char* text : {"other", "# Task\nOpen the share dialog"})
    EXPECT_THAT(ask(taped, request(text)), HasSubstr("!"));
  EXPECT_EQ(ask(taped, request("other")), start + "it was recorded 1 times and is asked once more");
  EXPECT_EQ(ask(taped, request("new")), start + "all that were recorded have been asked");
  EXPECT_EQ(cassette->misses().size(), 5u);
}

TEST_F(Replay, ByOrderComparesNothingAndSaysSo) {
  record({"a", "b", "c"});
  {
    CassetteClient taped(open(none, true));
    EXPECT_EQ(ask(taped, request("x", "1")), "a!");
    EXPECT_EQ(ask(taped, request("a", "2")), "b!");
  }
  EXPECT_THAT(log.lines(),
              ElementsAre("warning: vision: tape is replayed by order: requests get the recorded answers, "
                          "whatever they ask",
                          "warning: vision: 1 recorded calls of tape were not replayed; the first is 3 create"));
}

TEST_F(Replay, ThePageMustBeUsedAsRecorded) {
  const auto use = [&](BrowserPage& used, double x, bool full_page, const char* expression) {
    std::string out;
    try {
      out = loop.run(used.screenshot(ScreenshotOptions().full_page(full_page))).view();
      out += text::plain_text(loop.run(used.evaluate(expression)));
      out += text::plain_text(*used.viewport_size());
      loop.run(used.mouse().click(x, 2));
      loop.run(used.keyboard().press("Enter"));
    } catch (...) {
      out = text::full_exception_text(std::current_exception());
    }
    return out;
  };
  CassettePage recording(open(all), page);
  const std::string recorded = use(recording, 1.5, false, "1");
  const auto replayed = [&](double x, bool full_page, const char* expression) {
    CassettePage replay(open(none));
    return use(replay, x, full_page, expression);
  };
  EXPECT_EQ(replayed(1.5, false, "1"), recorded);
  const std::string miss = "CassetteMiss: call ";
  EXPECT_EQ(replayed(1.6, false, "1"), miss + "4 in tape is click [1.5, 2.0], not click [1.6, 2.0]");
  EXPECT_EQ(replayed(1.5, true, "1"), miss + "1 in tape is screenshot [false], not screenshot [true]");
  EXPECT_EQ(replayed(1.5, false, "2"), miss + "2 in tape is evaluate [\"1\"], not evaluate [\"2\"]");
  CassettePage replay(open(none));
  use(replay, 1.5, false, "1");
  EXPECT_EQ(use(replay, 1.5, false, "1"), "CassetteMiss: the recording in tape has ended before screenshot [false]");
  EXPECT_EQ(page.actions.size(), 2u) << "a replay does not touch the page";
}

TEST_F(Replay, BadInputIsRefused) {
  const auto refusal = [](auto make) -> std::string {
    try {
      make();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_THAT(refusal([] { open(none); }), HasSubstr("there is no recording in tape"));
  EXPECT_THAT(refusal([] { CassetteClient taped(open(once)); }), HasSubstr("no client to record for tape"));
  EXPECT_THAT(refusal([] { CassettePage recorded(open(all)); }), HasSubstr("no page to record for tape"));
  EXPECT_THAT(refusal([&] { CassettePage recorded(open(new_episodes), page); }), HasSubstr("new_episodes"));
  record({"a"});
  const std::string line = test::read_file("tape/cassette.jsonl");
  const std::pair<std::string, const char*> rows[] = {
      {"{", "not JSON: "},
      {"[]", "it is not a JSON object"},
      {R"({"number": "1"})", "\"number\" is missing or not of type int64"},
      {std::regex_replace(line, std::regex("\"key\""), "\"kex\""), "\"key\" is missing or not of type string"},
  };
  for (const auto& [bad, why] : rows) {
    std::ofstream("tape/cassette.jsonl") << line << bad << "\n";
    EXPECT_THAT(refusal([] { open(once); }),
                HasSubstr(std::string("cassette.jsonl, line 2 is not of a cassette: ") + why));
    EXPECT_EQ(refusal([] { open(all); }), "") << "it will be replaced";
  }
}

}  // namespace
}  // namespace vision
