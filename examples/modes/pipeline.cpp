// A pipeline with one site where a scripted step may fail. KX_VISION_TIER says what
// vision does there; each run has a budget and a report of its own.
//
//   KX_VISION_TIER=shadow build/release/examples/modes/example_pipeline
//   KX_VISION_TIER=tier2  build/release/examples/modes/example_pipeline
#include <boost/json.hpp>
#include <iostream>

#include "examples/modes/stage.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

asio::awaitable<std::string> scripted_step(vision::BrowserPage& page) {
  const auto title = co_await page.evaluate("document.title");
  if (title != "Shared") co_await page.evaluate("document.querySelector('#old-share').click()");
  co_return "done by the script";
}

asio::awaitable<std::string> computer_use_agent(vision::BrowserPage& page) {
  co_await page.mouse().click(70, 120);
  co_return "done by the agent";
}

// The site, with vision between the script and the agent, beside the agent, or
// not at all.
asio::awaitable<std::string> share(vision::BrowserPage& page, std::string run_id) {
  const vision::FlowContext context = {
      {"workflow_name", "share"}, {"current_step", "Click \"Share\"."}, {"phase", 2}, {"platform", "acme"}};
  auto step = [&page] { return scripted_step(page); };
  auto agent = [&page] { return computer_use_agent(page); };
  const std::string_view tier = vision::is_vision_enabled();
  if (tier == "tier2") {
    const vision::FallbackOptions options(context);
    auto rescue = [](vision::BrowserPage& on, const vision::FlowContext&, const std::string&) {
      return computer_use_agent(on);
    };
    const auto outcome = co_await vision::with_vision_fallback(page, std::move(step), options, std::move(rescue));
    if (outcome.way() == vision::FallbackWay::verdict) co_return outcome.verdict().reason;
    co_return outcome.way() == vision::FallbackWay::agent ? outcome.agent() : outcome.step();
  }
  std::string failure;
  try {
    co_return co_await step();
  } catch (const std::exception& error) {
    failure = error.what();
  }
  std::cout << "the script failed: " << failure << "\n";
  if (tier == "shadow") {
    vision::ObserverOptions site(context, "share-board");
    site.run_id(std::move(run_id));
    co_return co_await vision::shadow_observe_then_cua(page, std::move(agent), site);
  }
  co_return co_await agent();
}

void report(const std::string& run_id) {
  const vision::VisionMetrics& metrics = vision::default_client().metrics;
  std::cout << run_id << ": calls " << metrics.call_count << ", tokens " << metrics.total_input_tokens << "/"
            << metrics.total_output_tokens << ", p95 " << metrics.p95() << " ms, about $"
            << metrics.estimated_cost_usd() << "\n";
  for (const auto& [reason, count] : metrics.failures_by_reason) std::cout << "  " << count << " x " << reason << "\n";
}

asio::awaitable<void> two_runs(std::shared_ptr<vision::chromium::ChromiumPage> page) {
  std::cout << "tier: " << vision::is_vision_enabled() << "\n";
  const std::vector<std::string> runs = {"run-1", "run-2"};
  for (const std::string& run_id : runs) {
    vision::reset_default_metrics();
    co_await stage::reset(*page);
    std::cout << co_await share(*page, run_id) << "\n";
    report(run_id);
  }
}

int main() {
  return stage::run(two_runs);
}
