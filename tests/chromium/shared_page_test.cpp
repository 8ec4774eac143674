#include <gmock/gmock.h>

#include <set>

#include "tests/chromium/connect_fixture.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/vision.hpp"

namespace vision::chromium::test {
namespace {

using vision::test::proposal;
using vision::test::ScriptedModel;

VisionClient client_of(std::shared_ptr<ScriptedModel> model) {
  vision::test::TestRegistry::instance();
  return VisionClient(std::move(model));
}

asio::awaitable<std::string> verdict_of(BrowserPage& page, ActLoopOptions mission) {
  const ActionResult verdict = co_await act_loop(page, std::move(mission));
  co_return verdict.action + ": " + verdict.reason;
}

std::set<std::string> entries_of(const std::string& directory) {
  std::set<std::string> out;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) out.insert(entry.path());
  return out;
}

// The act loop drives the page of somebody else's browser while an observation of
// every step runs in the background, on a connection of its own.
TEST_F(Connect, DrivesAndObservesAPageOfSomeoneElseAtOnce) {
  const vision::test::ScratchDirectory logs;
  const auto log = logs.path() / "shadow.jsonl";
  const vision::test::ScopedEnv variable("KX_VISION_SHADOW_LOG", log.string());
  PageOptions small;
  small.viewport(500, 400).device_pixel_ratio(2);
  auto page = run(owner_->new_page(small));
  run(page->navigate(
      page_url("<body style='margin:0;height:3000px' onclick=\"document.title += event.clientX + ' '\">")));

  const auto before_we_came = entries_of(profiles_.path());
  const std::string url = "http://127.0.0.1:" + port_;
  auto driver = run(connect(url));
  auto observer = run(connect(url));
  auto driven = run(driver->attach(page->target_id()));
  auto observed = run(observer->attach(page->target_id()));

  auto acting = std::make_shared<ScriptedModel>();
  auto watching = std::make_shared<ScriptedModel>();
  constexpr int steps = 3;
  for (int step = 1; step <= steps; ++step) {
    acting->answer(proposal("click", 0.9, ", \"x_ratio\": 0." + std::to_string(step) + ", \"y_ratio\": 0.5"), 0.05);
    watching->answer(proposal("click", 0.8, R"(, "x_ratio": 0.9, "y_ratio": 0.9)"), 0.05);
  }
  acting->answer(proposal("declare_success", 0.9), 0);
  VisionClient driving = client_of(acting), seeing = client_of(watching);

  ActLoopOptions mission(FlowContext{{"phase", 2}}, "driven");
  mission.vision(driving);
  Running<std::string> mission_run(verdict_of(*driven, mission));
  std::vector<json::object> records;
  std::vector<std::string> errors;
  for (int i = 0; i < steps; ++i) {
    ObserverOptions options(FlowContext{{"phase", 2}}, "observed");
    options.vision(seeing);
    const std::size_t before = records.size() + errors.size();
    observe_in_background(loop().get_executor(), observed, options, [&](std::exception_ptr error, json::object record) {
      error ? errors.push_back(text::exception_text(error)) : records.push_back(std::move(record));
    });
    while (records.size() + errors.size() == before) loop().run_one();
  }
  EXPECT_EQ(mission_run.get(), "declare_success: because");
  EXPECT_THAT(errors, testing::IsEmpty());

  // Each saw and did its own, and the owner finds nothing else changed.
  EXPECT_EQ(value_of(*page, "document.title"), R"("50100150")");
  EXPECT_EQ(value_of(*page, "[innerWidth, innerHeight, devicePixelRatio, scrollY]"), "[500, 400, 2, 0]");
  std::vector<std::string> observations;
  std::istringstream lines(vision::test::read_file(log));
  for (std::string line; std::getline(lines, line);) {
    if (line.find(R"("hotspot_id": "observed")") != std::string::npos) observations.push_back(line);
  }
  ASSERT_EQ(observations.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(observations[i], text::to_json(records[i]));
    EXPECT_EQ(records[i].at("vision").at("action"), "click");
  }

  driven.reset();
  observed.reset();
  run(driver->close());
  run(observer->close());
  EXPECT_EQ(run(owner_->pages()).size(), 1u);
  EXPECT_EQ(value_of(*page, "[innerWidth, devicePixelRatio]"), "[500, 2]");
  EXPECT_EQ(entries_of(profiles_.path()), before_we_came);
}

}  // namespace
}  // namespace vision::chromium::test
