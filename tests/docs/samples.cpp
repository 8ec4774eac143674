// Writes the records and log lines that the documentation shows into the current
// directory: made by the modes themselves, in virtual time, so always the same.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "tests/support/environment.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace {

namespace asio = boost::asio;
using boost::json::object;
using test::pause;

struct AgentError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string proposal(object members) {
  object input = {{"action", "click"}, {"reason", "The Share button is in the toolbar"}, {"confidence", 0.85}};
  input["next_expected_state"] = "A dialog opens";
  for (auto& [key, value] : members) input[key] = value;
  return test::tool_call(text::to_json(input));
}

asio::awaitable<object> agent(std::string text) {
  co_await pause(41.2);
  if (text.empty()) throw AgentError("no panel after 12 steps");
  object result = {{"text", text}, {"steps", 3}};
  co_return result;
}

struct Samples {
  ObserverOptions at(const char* site) {
    ObserverOptions options(context, site);
    options.vision(client).run_id("run-42");
    return options;
  }

  void observe(const std::string& answer, const char* site = "board-menu", double takes = 1.8) {
    model->answer(answer, takes);
    const object truth = {{"true_x_ratio", 0.92}, {"true_y_ratio", 0.06}, {"label", "Share"}, {"clickedTag", "BUTTON"}};
    auto options = at(site).dom_ground_truth(truth);
    world.run(observe_only(page, std::move(options)));
    model->steps.clear();
  }

  void shadow(const char* agent_text) {
    auto cua_fn = [agent_text] { return agent(agent_text); };
    world.run(shadow_observe_then_cua(page, cua_fn, at("export-dialog")));
  }

  void mission(const std::vector<std::string>& answers) {
    for (const auto& answer : answers) model->answer(answer, 1.8);
    ActLoopOptions options(context, "share-dialog");
    options.vision(client).run_id("run-42").mission_prompt("Share the board with ana@example.org.");
    world.run(act_loop(page, std::move(options)));
  }

  void ask(VisionClient& asked) {
    const ImgMeta meta(1280, 800, 1.0, 0.0);
    world.run(asked.ask(Bytes(std::string("PNG")), meta, context));
  }

  test::TestRegistry& registry = test::TestRegistry::instance();
  test::VirtualLoop world;
  test::ScriptedPage page;
  std::shared_ptr<test::ScriptedModel> model = std::make_shared<test::ScriptedModel>();
  VisionClientOptions client_options = VisionClientOptions().call_budget(1000);
  VisionClient client{model, client_options};
  FlowContext context = {{"workflow_name", "share"}, {"phase", 2}, {"platform", "acme"}};
};

void success_path(Samples& s) {
  for (int i = 0; i < 8; ++i) s.observe(proposal({{"x_ratio", 0.9}, {"y_ratio", 0.05}}));
  s.observe(proposal({{"x_ratio", 0.5}, {"y_ratio", 0.5}}));
  s.observe(proposal({{"action", "scroll"}, {"confidence", 0.7}}));
  s.observe(R"({"content": []})");
  s.observe("", "board-menu", 1e9);  // not answered in time
  s.page.before = [](std::string) -> asio::awaitable<void> { throw std::runtime_error("Target closed"); };
  s.observe("");
  s.page.before = [](std::string) { return pause(1e9); };
  s.observe("");
  s.page.before = nullptr;
}

void miss_path(Samples& s) {
  s.model->answer(proposal({{"x_ratio", 0.5}, {"y_ratio", 0.25}}), 1.8);
  s.shadow("click 0.52,0.27: the export panel is open");
  s.model->answer(proposal({{"action", "escalate_to_cua"}, {"reason", "A captcha covers the page"}}), 1.8);
  s.shadow("click 0.52,0.27: the export panel is open");
  s.model->fail(APIConnectionError("cannot reach api.example"));
  try {
    s.shadow("");
  } catch (const AgentError&) {  // what the sample is about
  }
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
  s.ask(s.client);
  s.model->fail(BadRequestError("no such model", {}));
  s.ask(s.client);
  const auto failing_hook = [](const ActionResult&, const FlowContext&) -> asio::awaitable<void> {
    throw std::runtime_error("the hook's own message");
  };
  VisionClient hooked(s.model, VisionClientOptions().on_action(failing_hook));
  s.model->answer(proposal({}), 1.8);
  s.ask(hooked);
  const test::ScopedEnv harvesting("KX_VISION_FIXTURE_AUTO", "1"), no_file("KX_VISION_SHADOW_LOG", ".");
  s.observe(proposal({}), "..");
}

}  // namespace
}  // namespace vision

int main() {
  using namespace vision;
  const test::ScopedEnv log_path("KX_VISION_SHADOW_LOG", std::nullopt),
      fixtures("KX_VISION_FIXTURE_AUTO", std::nullopt);
  const auto logger = spdlog::basic_logger_mt("vision", "vision.log");
  logger->set_level(spdlog::level::debug);
  logger->set_pattern("%l %v");
  Samples samples;
  success_path(samples);
  miss_path(samples);
  missions(samples);
  log_lines(samples);
  logger->flush();
}
