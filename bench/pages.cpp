// The demo's mission on pages of a Chromium of ours, several at once.
//   pages MODEL_URL APP_URL PAGES [--draw SCRIPT --shots N]
// The model server answers MODEL_URL/PAGE by the mission's script. With --shots it first takes
// as many screenshots, with fast encoding, of what the script draws.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <vector>

#include "bench/support.hpp"
#include "chromium/browser.hpp"
#include "vision/wirein/act_loop.hpp"

using namespace vision;
namespace asio = boost::asio;

namespace {

// On a busy machine the application may still be answering.
constexpr const char* link_appears = R"js(new Promise((resolve) => {
  const look = (left) => document.body.innerText.includes("pinwall.test/") ? resolve(true)
    : left > 0 ? setTimeout(look, 100, left - 1) : resolve(false);
  look(100);
}))js";

struct Mission {
  std::shared_ptr<chromium::ChromiumPage> page;
  std::unique_ptr<VisionClient> client;
  double wall_s = 0;
  std::int64_t steps = 0;
  bool has_reached_its_goal = false;
};

asio::awaitable<void> run_mission(Mission& mission) {
  ActLoopOptions options({{"workflow_name", "demo_share_board"}, {"phase", 4}}, "bench");
  options.mission_prompt("Share the board.").max_steps(20).vision(*mission.client);
  const bench::Meter meter;
  const ActionResult verdict = co_await act_loop(*mission.page, std::move(options));
  mission.wall_s = meter.wall_s();
  mission.steps = mission.client->metrics.call_count;
  const auto has_link = co_await mission.page->evaluate(link_appears);
  mission.has_reached_its_goal = verdict.action == ActionVerb::declare_success && has_link == true;
}

asio::awaitable<void> open(chromium::Browser& browser, const bench::Arguments& arguments, Mission& mission,
                           std::size_t number) {
  mission.page = co_await browser.new_page(chromium::PageOptions().viewport(1280, 800));
  co_await mission.page->navigate(arguments.at(1));
  HttpOptions http;
  http.base_url(arguments.at(0) + "/" + std::to_string(number));
  mission.client = std::make_unique<VisionClient>(VisionClientOptions().api_key("bench-key-0123456789").http(http));
}

asio::awaitable<void> open_all(std::shared_ptr<chromium::Browser>& browser, const bench::Arguments& arguments,
                               std::vector<Mission>& missions) {
  browser = co_await chromium::launch();
  for (std::size_t i = 0; i < missions.size(); ++i) co_await open(*browser, arguments, missions[i], i);
}

asio::awaitable<void> take_shots(chromium::ChromiumPage& page, const bench::Arguments& arguments,
                                 boost::json::array& seconds) {
  const long count = arguments.number("shots", 0);
  if (count == 0) co_return;
  const Bytes draw = bench::read_bytes(arguments.text("draw"));
  (void)co_await page.evaluate(std::string(draw.view()));
  page.optimize_for_speed(true);
  (void)co_await page.screenshot(ScreenshotOptions());  // warms up
  for (long i = 0; i < count; ++i) {
    const bench::Meter meter;
    (void)co_await page.screenshot(ScreenshotOptions());
    seconds.push_back(meter.wall_s());
  }
  page.optimize_for_speed(false);
  co_await page.navigate(arguments.at(1));
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  bench::be_host();
  asio::io_context io;
  const auto spawn = [&io](asio::awaitable<void> operation) {
    asio::co_spawn(io, std::move(operation), [](std::exception_ptr error) {
      if (error) std::rethrow_exception(error);
    });
  };
  const auto run = [&io] {
    io.restart();
    io.run();
  };
  std::vector<Mission> missions(std::stoul(arguments.at(2)));
  std::shared_ptr<chromium::Browser> browser;
  boost::json::array shots;
  spawn(open_all(browser, arguments, missions));
  run();
  spawn(take_shots(*missions.at(0).page, arguments, shots));
  run();
  bench::reset_peak_memory();
  const bench::Meter meter;
  for (Mission& mission : missions) spawn(run_mission(mission));
  run();
  const double cpu_s = meter.cpu_s();
  boost::json::array walls;
  std::int64_t steps = 0, reached = 0;
  for (const Mission& mission : missions) {
    walls.push_back(mission.wall_s);
    reached += mission.has_reached_its_goal;
    steps += mission.steps;
  }
  bench::print({{"cpu_s", cpu_s / static_cast<double>(steps)},
                {"memory_kb", bench::process_status("VmHWM")},
                {"walls", std::move(walls)},
                {"steps", steps},
                {"reached", reached},
                {"shots", std::move(shots)}});
  missions.clear();
  browser.reset();
}
