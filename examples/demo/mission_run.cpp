#include "examples/demo/mission_run.hpp"

#include <boost/asio/this_coro.hpp>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include "chromium/browser.hpp"
#include "examples/demo/demo_app.hpp"
#include "examples/demo/recording_page.hpp"
#include "examples/local_model/local_model.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/wirein/act_loop.hpp"

namespace demo {
namespace {

namespace asio = boost::asio;

constexpr const char* invited_board = "harvest-festival";
constexpr const char* invited_person = "ana@example.org";

std::string mission_brief() {
  std::ifstream file(DEMO_DIR "/mission.txt", std::ios::binary);
  if (!file) throw std::runtime_error("cannot read the mission brief " DEMO_DIR "/mission.txt");
  return {std::istreambuf_iterator<char>(file), {}};
}

vision::FlowContext flow_context() {
  return {{"workflow_name", "demo_share_board"},
          {"phase", 4},
          {"current_step", "invite a person and share the board"},
          {"expected_outcome", "the share link is read from the screen"},
          {"platform", "pinwall"}};
}

// Puts every answer together with the picture that it was given for.
class StepRecorder {
 public:
  StepRecorder(const RecordingPage& page, OnStep on_step) : page_(page), on_step_(std::move(on_step)) {}

  asio::awaitable<void> note(vision::ActionResult proposal) {
    steps_.push_back({page_.last_screenshot(), proposal});
    on_step_(steps_.size(), proposal);
    co_return;
  }

  vision::OnAction hook() {
    return [this](const vision::ActionResult& proposal, const vision::FlowContext&) { return note(proposal); };
  }

  std::vector<ReportStep>& steps() { return steps_; }

 private:
  const RecordingPage& page_;
  OnStep on_step_;
  std::vector<ReportStep> steps_;
};

}  // namespace

asio::awaitable<MissionEnd> run_mission(DemoOptions options, ModelChoice model, std::string run_id, OnStep on_step) {
  const auto executor = co_await asio::this_coro::executor;
  DemoApp app(executor);
  std::optional<local_model::LocalModel> local;
  vision::HttpOptions http;
  if (model.local) {
    local.emplace(executor, local_model::LocalModelOptions().api_key(model.api_key));
    http.base_url(local->base_url());
  }
  const auto client = std::make_shared<vision::HttpMessagesClient>(model.api_key, http);

  const auto browser = co_await vision::chromium::launch();
  vision::chromium::PageOptions page_options;
  page_options.viewport(options.width, options.height).device_pixel_ratio(options.dpr);
  const auto page = co_await browser->new_page(page_options);
  co_await page->navigate(app.base_url() + "/");

  RecordingPage recording(*page);
  StepRecorder recorder(recording, std::move(on_step));
  vision::VisionClient vision(client, vision::VisionClientOptions().on_action(recorder.hook()));
  vision::ActLoopOptions loop(flow_context(), hotspot_id);
  loop.mission_prompt(mission_brief()).vision(vision).run_id(std::move(run_id)).max_steps(options.max_steps);
  MissionEnd end(co_await vision::act_loop(recording, std::move(loop)));

  end.steps = std::move(recorder.steps());
  end.metrics = vision.metrics;
  end.expected = app.answer();
  end.invited_rightly = app.only_invited(invited_board, invited_person);
  co_await vision::runtime::try_await(browser->close());
  co_return end;
}

}  // namespace demo
