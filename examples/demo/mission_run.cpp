#include "examples/demo/mission_run.hpp"

#include <boost/asio/this_coro.hpp>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>

#include "chromium/browser.hpp"
#include "examples/demo/demo_app.hpp"
#include "examples/demo/recording_page.hpp"
#include "examples/local_model/local_model.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/replay/cassette_client.hpp"
#include "vision/replay/cassette_page.hpp"
#include "vision/replay/record_mission.hpp"
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

// Keeps every answer together with the picture that it was given for.
vision::OnAction keep_steps(MissionRun& run, RecordingPage& page, OnStep on_step) {
  return [&run, &page, on_step = std::move(on_step)](const vision::ActionResult& proposal,
                                                     const vision::FlowContext&) -> asio::awaitable<void> {
    run.steps.push_back({page.take_screenshot(), proposal});
    on_step(run.steps.size(), proposal);
    co_return;
  };
}

class Stopwatch {
 public:
  explicit Stopwatch(MissionRun& run) : run_(run) { run_.started = std::time(nullptr); }
  ~Stopwatch() { run_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count(); }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  MissionRun& run_;
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Completes the run when the mission ends. A destructor, because a cancelled
// coroutine gets no further than that.
class LastLook {
 public:
  LastLook(MissionRun& run, const DemoApp& app, const vision::VisionClient& client, RecordingPage& page)
      : run_(run), app_(app), client_(client), page_(page) {}
  ~LastLook() {
    run_.metrics = client_.metrics;
    run_.expected = app_.answer();
    run_.invited_rightly = app_.only_invited(invited_board, invited_person);
    keep_unanswered_screenshot();
  }
  LastLook(const LastLook&) = delete;
  LastLook& operator=(const LastLook&) = delete;

 private:
  // The hook hears nothing of a call that got no response: its failure is the
  // verdict, unless the loop ended the mission for a reason of its own.
  void keep_unanswered_screenshot() {
    auto screenshot = page_.take_screenshot();
    if (screenshot.empty()) return;
    const bool failed = run_.verdict && run_.verdict->model_used != "act_loop";
    run_.steps.push_back({std::move(screenshot), failed ? run_.verdict : std::nullopt});
  }

  MissionRun& run_;
  const DemoApp& app_;
  const vision::VisionClient& client_;
  RecordingPage& page_;
};

// The page and the client that a mission uses: themselves, or behind a cassette.
struct Parts {
  Parts(const std::filesystem::path& folder, vision::BrowserPage& real, std::shared_ptr<vision::MessagesClient> model)
      : page(&real), client(std::move(model)) {
    if (folder.empty()) return;
    const auto options = vision::CassetteOptions().mode(vision::CassetteMode::all);
    cassette = std::make_shared<vision::Cassette>(folder.string(), options);
    page = &recorded.emplace(cassette, real);
    client = std::make_shared<vision::CassetteClient>(cassette, client);
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  std::shared_ptr<vision::Cassette> cassette;
  std::optional<vision::CassettePage> recorded;
  vision::BrowserPage* page;
  std::shared_ptr<vision::MessagesClient> client;
};

}  // namespace

std::string new_run_id() {
  char text[64];
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  const std::size_t size = std::strftime(text, sizeof text, "demo-%Y%m%dT%H%M%SZ-", ::gmtime_r(&now, &utc));
  std::string id(text, size);
  std::random_device source;
  std::uniform_int_distribution<std::size_t> digit(0, 15);
  for (int i = 0; i < 8; ++i) id += "0123456789abcdef"[digit(source)];
  return id;
}

asio::awaitable<void> run_mission(DemoOptions options, ModelChoice model, MissionRun& run, OnStep on_step) {
  const Stopwatch stopwatch(run);
  run.brief = mission_brief();
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

  const Parts parts(options.record, *page, client);
  RecordingPage recording(*parts.page);
  auto hook = keep_steps(run, recording, std::move(on_step));
  vision::VisionClient vision(parts.client, vision::VisionClientOptions().on_action(std::move(hook)));
  const LastLook last_look(run, app, vision, recording);
  vision::ActLoopOptions loop(flow_context(), hotspot_id);
  loop.mission_prompt(run.brief).vision(vision).run_id(run.id).max_steps(options.max_steps);
  if (parts.cassette) {
    run.verdict = co_await vision::record_mission(parts.cassette, recording, std::move(loop));
  } else {
    run.verdict = co_await vision::act_loop(recording, std::move(loop));
  }
  co_await vision::runtime::try_await(browser->close());
}

}  // namespace demo
