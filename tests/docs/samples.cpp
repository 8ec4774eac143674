// Writes the records and log lines that the documentation shows into the current
// directory: made by the modes themselves, in virtual time, so always the same.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <iostream>

#include "tests/support/environment.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/text/json_text.hpp"
#include "vision/vision.hpp"

namespace vision {
namespace {

namespace asio = boost::asio;
using boost::json::object;

struct AgentError : std::runtime_error, CuaOriginMark {
  using std::runtime_error::runtime_error;
};

std::string proposal(object members) {
  object input = {{"action", "click"}, {"reason", "The Share button is in the toolbar"}, {"confidence", 0.85}};
  input["next_expected_state"] = "A dialog opens";
  for (auto& [key, value] : members) input[key] = value;
  return test::tool_call(text::to_json(input));
}

asio::awaitable<void> pause(double seconds) {
  co_await runtime::sleep_for(runtime::to_duration(seconds));
}

asio::awaitable<object> agent(std::string text) {
  co_await pause(41.2);
  if (text.empty()) throw AgentError("no panel after 12 steps");
  object result = {{"text", text}, {"steps", 3}};
  co_return result;
}

class Samples {
 public:
  void observe(const char* site, const std::string& answer, double x, double y) {
    model->answer(answer, 1.8);
    const object truth = {{"true_x_ratio", x}, {"true_y_ratio", y}, {"label", "Share"}, {"clickedTag", "BUTTON"}};
    auto options = at(site).dom_ground_truth(truth);
    world.run(observe_only(page, std::move(options)));
  }

  void shadow(const char* site, const std::string& agent_text) {
    auto cua_fn = [agent_text] { return agent(agent_text); };
    try {
      world.run(shadow_observe_then_cua(page, cua_fn, at(site)));
    } catch (const AgentError&) {  // what the sample is about
    }
  }

  void mission(std::vector<std::string> answers) {
    for (auto& answer : answers) model->answer(std::move(answer), 1.8);
    ActLoopOptions options(context, "share-dialog");
    options.vision(client).run_id("run-42").mission_prompt("Share the board with ana@example.org.");
    world.run(act_loop(page, std::move(options)));
  }

  void ask() {
    const ImgMeta meta(1280, 800, 1.0, 0.0);
    world.run(client.ask(Bytes(std::string("PNG")), meta, context));
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::World world;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClientOptions client_options = VisionClientOptions().call_budget(1000);
  VisionClient client{model, client_options};
  FlowContext context = {{"workflow_name", "share"}, {"phase", 2}, {"platform", "acme"}};

 private:
  ObserverOptions at(const char* site) {
    ObserverOptions options(context, site);
    options.vision(client).run_id("run-42");
    return options;
  }
};

void success_path(Samples& s) {
  for (int i = 0; i < 8; ++i) s.observe("board-menu", proposal({{"x_ratio", 0.9}, {"y_ratio", 0.05}}), 0.92, 0.06);
  s.observe("board-menu", proposal({{"x_ratio", 0.5}, {"y_ratio", 0.5}}), 0.92, 0.06);
  s.observe("board-menu", proposal({{"action", "scroll"}, {"confidence", 0.7}}), 0.92, 0.06);
  s.observe("board-menu", R"({"content": []})", 0.92, 0.06);
  s.model->answer("", 1e9);  // not answered in time
  s.observe("board-menu", "", 0.92, 0.06);
  s.model->steps.clear();
  s.page.before = [](std::string) -> asio::awaitable<void> { throw std::runtime_error("Target closed"); };
  s.observe("board-menu", "", 0.92, 0.06);
  s.page.before = [](std::string) { return pause(1e9); };
  s.observe("board-menu", "", 0.92, 0.06);
  s.page.before = nullptr;
  s.model->steps.clear();
}

void miss_path(Samples& s) {
  s.model->answer(proposal({{"x_ratio", 0.5}, {"y_ratio", 0.25}}), 1.8);
  s.shadow("export-dialog", "click 0.52,0.27: the export panel is open");
  s.model->answer(proposal({{"action", "escalate_to_cua"}, {"reason", "A captcha covers the page"}}), 1.8);
  s.shadow("export-dialog", "click 0.52,0.27: the export panel is open");
  s.model->fail(APIConnectionError("cannot reach api.example"));
  s.shadow("export-dialog", "");
}

void missions(Samples& s) {
  const auto click = proposal({{"x_ratio", 0.5}, {"y_ratio", 0.25}});
  const auto type = proposal({{"action", "type"}, {"text", "ana@example.org"}, {"reason", "The field has the focus"}});
  const auto done = proposal({{"action", "declare_success"}, {"reason", "https://board.example/s/17"}});
  s.mission({click, type, done});
  s.mission({proposal({{"x_ratio", 0.99}, {"y_ratio", 0.5}, {"confidence", 0.42}})});
}

// Lines of the log channel that no record above caused.
void log_lines(Samples& s) {
  s.model->fail(RateLimitError("slow down", {})).answer(proposal({}), 1.8);
  s.ask();
  s.model->fail(BadRequestError("no such model", {}));
  s.ask();
  const auto failing_hook = [](const ActionResult&, const FlowContext&) -> asio::awaitable<void> {
    throw std::runtime_error("the hook's own message");
  };
  auto options = VisionClientOptions().on_action(failing_hook);
  VisionClient hooked(s.model, options);
  s.model->answer(proposal({}), 1.8);
  const ImgMeta meta(1280, 800, 1.0, 0.0);
  s.world.run(hooked.ask(Bytes(std::string("PNG")), meta, s.context));

  const test::ScopedEnv harvesting("KX_VISION_FIXTURE_AUTO", "1");
  const test::ScopedEnv no_file("KX_VISION_SHADOW_LOG", ".");
  s.observe("..", proposal({}), 0.92, 0.06);
}

int write_samples() {
  const test::ScopedEnv log_path("KX_VISION_SHADOW_LOG", std::nullopt);
  const test::ScopedEnv no_harvest("KX_VISION_FIXTURE_AUTO", std::nullopt);
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>("vision.log");
  auto logger = std::make_shared<spdlog::logger>("vision", sink);
  logger->set_level(spdlog::level::debug);
  logger->set_pattern("%l %v");
  spdlog::register_logger(logger);
  Samples samples;
  success_path(samples);
  miss_path(samples);
  missions(samples);
  log_lines(samples);
  logger->flush();
  return 0;
}

}  // namespace
}  // namespace vision

int main() {
  try {
    return vision::write_samples();
  } catch (const std::exception& error) {
    std::cerr << "docs_samples: " << error.what() << "\n";
    return 1;
  }
}
