// What docs/guide.md shows, as one program. It needs neither a browser nor a
// model: its page shows one picture, and its test points it at an endpoint where
// nothing listens. Every model call fails, and the pipeline must not notice.
#include <spdlog/spdlog.h>

#include <boost/algorithm/string.hpp>
#include <boost/asio.hpp>
#include <cstdlib>
#include <iostream>

#include "docs/programs/picture_page.hpp"
#include "examples/models.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;
namespace json = boost::json;

namespace {

std::string key_from_vault() {
  return "sk-a-key-from-the-vault";
}

// [registry]
class Host : public vision::ModelRegistry {
 public:
  std::string VISION_LIGHT_MODEL() const override { return examples::light_model; }
  std::string VISION_HEAVY_MODEL() const override { return examples::heavy_model; }
  std::function<std::string()> core_attr(std::string_view name) const override {
    if (name != "resolve_api_key") return nullptr;
    return [] { return key_from_vault(); };
  }
};
// [registry]

// [startup]
void check_at_start_up() {
  vision::set_model_registry(std::make_shared<Host>());
  vision::default_client();  // throws now, rather than in the first run, when the models or the key are missing

  const char* value = std::getenv("KX_VISION_TIER");
  const std::string tier = boost::trim_copy(std::string(value ? value : ""));
  if (vision::is_vision_enabled() == "off" && !tier.empty() && !boost::iequals(tier, "off")) {
    throw std::runtime_error("KX_VISION_TIER is \"" + tier + "\", not one of off, shadow, tier2, act, tier3");
  }
}
// [startup]

// [errors]
class AgentError : public std::runtime_error, public vision::CuaOriginMark {
 public:
  using std::runtime_error::runtime_error;
};
// [errors]

asio::awaitable<json::object> computer_use_agent(vision::BrowserPage&) {
  json::object result = {{"text", "click 0.52,0.27: the share dialog is open"}};
  co_return result;
}

asio::awaitable<std::string> click_share(vision::BrowserPage&, int& runs) {
  if (++runs == 1) throw std::runtime_error("no element matches #share");
  co_return "clicked";
}

// [site]
asio::awaitable<std::string> open_share_dialog(vision::BrowserPage& page, std::string run_id) {
  const vision::FlowContext context = {{"workflow_name", "share"},
                                       {"current_step", "open the share dialog"},
                                       {"expected_outcome", "the share dialog is open"},
                                       {"phase", 2},
                                       {"platform", "acme"},
                                       {"attempts", 1}};
  auto agent = [&page] { return computer_use_agent(page); };
  const std::string_view tier = vision::is_vision_enabled();
  if (tier == "shadow") {
    vision::ObserverOptions options(context, "share-dialog");
    options.run_id(run_id);
    const json::object result = co_await vision::shadow_observe_then_cua(page, std::move(agent), std::move(options));
    co_return std::string(result.at("text").as_string());
  }
  if (tier == "tier2") {
    // [mission]
    vision::ActLoopOptions mission(context, "share-dialog");
    mission.run_id(run_id).mission_prompt("Open the share dialog. Answer with its title.").max_steps(4);
    const vision::ActionResult verdict = co_await vision::act_loop(page, std::move(mission));
    if (verdict.action == vision::ActionVerb::declare_success) co_return verdict.reason;
    // [mission]
  }
  const json::object result = co_await agent();
  co_return std::string(result.at("text").as_string());
}
// [site]

// [background]
void after_a_step_that_succeeded(const asio::any_io_executor& executor,
                                 const std::shared_ptr<vision::BrowserPage>& page, const std::string& run_id) {
  const vision::FlowContext context = {{"workflow_name", "share"}, {"phase", 2}, {"platform", "acme"}};
  const json::object truth = {{"action", "click"}, {"true_x_ratio", 0.92}, {"true_y_ratio", 0.06}, {"label", "Share"}};
  vision::ObserverOptions options(context, "board-menu");
  options.run_id(run_id).dom_ground_truth(truth);
  vision::observe_in_background(executor, page, std::move(options));
}
// [background]

// [fallback]
asio::awaitable<std::string> share(vision::BrowserPage& page, int& runs) {
  const vision::FlowContext context = {{"workflow_name", "share"}, {"current_step", "click Share"}};
  const vision::FallbackOptions options(context);
  auto step = [&page, &runs] { return click_share(page, runs); };
  std::string failure;
  try {
    const auto outcome = co_await vision::with_vision_fallback(page, std::move(step), options);
    if (outcome.way() == vision::FallbackWay::verdict) co_return outcome.verdict().reason;
    co_return outcome.step();  // from its first or second run: outcome.is_rescued() tells
  } catch (const std::exception& error) {
    failure = error.what();
  }
  std::cout << "the step failed: " << failure << "\n";
  const json::object result = co_await computer_use_agent(page);  // throws at once if the caller was cancelled
  co_return std::string(result.at("text").as_string());
}
// [fallback]

// [run]
asio::awaitable<void> one_run(std::shared_ptr<vision::BrowserPage> page, std::string run_id) {
  vision::reset_default_metrics();  // the call budget, and the figures below, are per run
  std::cout << co_await open_share_dialog(*page, run_id) << "\n";

  const vision::VisionMetrics& metrics = vision::default_client().metrics;
  std::cout << "calls " << metrics.call_count << ", tokens " << metrics.total_input_tokens << "/"
            << metrics.total_output_tokens << ", p95 " << metrics.p95() << " ms, about $"
            << metrics.estimated_cost_usd() << "\n";
  for (const auto& [reason, count] : metrics.failures_by_reason) std::cout << count << " x " << reason << "\n";
}
// [run]

// [client]
std::unique_ptr<vision::VisionClient> gateway_client() {
  auto http = vision::HttpOptions().base_url("https://gateway.example").ca_file("/etc/ssl/gateway.pem");
  auto options = vision::VisionClientOptions().api_key(key_from_vault()).http(http).call_budget(200);
  return std::make_unique<vision::VisionClient>(options);
}
// [client]

// [logger]
void send_log_lines_where_ours_go() {
  auto logger = spdlog::default_logger()->clone("vision");  // the same sinks and pattern
  logger->set_level(spdlog::level::debug);                  // debug adds the records that could not be written
  spdlog::register_logger(std::move(logger));
}
// [logger]

asio::awaitable<void> everything(std::shared_ptr<vision::BrowserPage> page) {
  for (const char* tier : {"off", "shadow", "tier2"}) {
    ::setenv("KX_VISION_TIER", tier, 1);
    co_await one_run(page, std::string("run-") + tier);
  }
  int runs = 0;
  std::cout << co_await share(*page, runs) << "\n";
  const asio::any_io_executor executor = co_await asio::this_coro::executor;
  after_a_step_that_succeeded(executor, page, "run-background");
}

}  // namespace

int main() {
  send_log_lines_where_ours_go();
  check_at_start_up();
  const auto client = gateway_client();
  const auto page = std::make_shared<PicturePage>();
  asio::io_context io;
  std::exception_ptr failure;
  asio::co_spawn(io, everything(page), [&](std::exception_ptr e) { failure = e; });
  io.run();
  if (failure) std::rethrow_exception(failure);
}
