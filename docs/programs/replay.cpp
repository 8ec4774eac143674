// What docs/replay.md shows, as one program: a test in virtual time, and a mission that is
// recorded once and replayed.
#include <boost/asio.hpp>
#include <filesystem>
#include <iostream>

#include "docs/programs/picture_page.hpp"
#include "examples/models.hpp"
#include "vision/client/api_error.hpp"
#include "vision/testing/scripted_model.hpp"
#include "vision/testing/scripted_page.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

namespace {

// [virtual]
bool a_rate_limit_costs_one_retry() {
  vision::test::VirtualLoop loop;
  vision::test::ScriptedPage page;
  const auto model = std::make_shared<vision::test::ScriptedModel>();
  model->fail(vision::RateLimitError("slow down", {}), 0.5)
      .answer(vision::test::proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.25)"), 1.75)
      .answer(vision::test::proposal("declare_success", 0.9), 1.75);
  vision::VisionClient client(model);
  vision::ActLoopOptions mission({{"workflow_name", "share"}}, "share-dialog");
  const vision::ActionResult verdict = loop.run(vision::act_loop(page, mission.vision(client)));
  return verdict.action == vision::ActionVerb::declare_success && page.actions.size() == 1 &&
         loop.seconds() == 0.5 + 1.5 + 1.75 + 1 + 1.75;  // with the retry's pause, and a second to settle
}
// [virtual]

// [mission]
asio::awaitable<vision::ActionResult> share(std::shared_ptr<vision::Cassette> cassette, vision::BrowserPage& page,
                                            std::shared_ptr<vision::MessagesClient> model) {
  vision::VisionClient client(model);
  vision::ActLoopOptions mission({{"workflow_name", "share"}}, "share-dialog");
  mission.vision(client).run_id("test").mission_prompt("Open the share dialog.");
  co_return co_await vision::record_mission(cassette, page, std::move(mission));
}
// [mission]

// [record]
// On a developer's machine: with a real page and a real model, in real time.
vision::ActionResult record(vision::BrowserPage& page, std::shared_ptr<vision::MessagesClient> model) {
  const auto all = vision::CassetteOptions().mode(vision::CassetteMode::all);
  const auto cassette = std::make_shared<vision::Cassette>("cassettes/share", all);
  vision::CassettePage recorded(cassette, page);
  asio::io_context io;
  auto verdict = asio::co_spawn(
      io, share(cassette, recorded, std::make_shared<vision::CassetteClient>(cassette, model)), asio::use_future);
  io.run();
  return verdict.get();
}
// [record]

// [replay]
// In CI: no page, no model, no network, no time.
vision::ActionResult replay() {
  const auto none = vision::CassetteOptions().mode(vision::CassetteMode::none);
  const auto cassette = std::make_shared<vision::Cassette>("cassettes/share", none);
  vision::CassettePage page(cassette);
  vision::test::VirtualLoop loop(cassette->began());
  const auto verdict = loop.run(share(cassette, page, std::make_shared<vision::CassetteClient>(cassette)));
  for (const auto& miss : cassette->misses()) std::cout << miss << "\n";
  return verdict;
}
// [replay]

}  // namespace

int main() {
  using vision::StaticModelRegistry;
  vision::set_model_registry(std::make_shared<StaticModelRegistry>(examples::light_model, examples::heavy_model));
  std::string folder = (std::filesystem::temp_directory_path() / "replay-XXXXXX").string();
  std::filesystem::current_path(::mkdtemp(folder.data()));
  PicturePage page;
  const auto model = std::make_shared<vision::test::ScriptedModel>();
  model->answer(vision::test::proposal("declare_success", 0.9), 0.01);
  const auto recorded = record(page, model), replayed = replay();
  std::cout << (a_rate_limit_costs_one_retry() ? "in virtual time\n" : "not as expected\n");
  std::cout << replayed.action << (replayed.action == recorded.action ? ", as recorded\n" : ", not as recorded\n");
  std::filesystem::remove_all(folder);
}
