// The fallback wrapper: a scripted step whose selector has gone stale. Vision looks
// at the page, does the one thing that is missing, and the step runs once more.
//
//   build/release/examples/modes/example_fallback
#include <boost/json.hpp>
#include <iostream>

#include "examples/modes/stage.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

// Written for last month's page. A step must be safe to run again after a partial
// first run: this one clicks only while the board is not shared yet.
asio::awaitable<std::string> share(vision::BrowserPage& page) {
  const auto title = co_await page.evaluate("document.title");
  if (title != "Shared") {
    std::cout << "the step looks for #old-share\n";
    co_await page.evaluate("document.querySelector('#old-share').click()");
  }
  const auto link = co_await page.evaluate("document.querySelector('#state').textContent");
  co_return std::string(link.as_string());
}

asio::awaitable<std::string> run_computer_use_agent(const std::string& reason) {
  std::cout << "the computer-use agent takes over: " << reason << "\n";
  co_return "shared by the agent";
}

asio::awaitable<void> share_the_board(std::shared_ptr<vision::chromium::ChromiumPage> page) {
  const vision::FlowContext context = {
      {"workflow_name", "share"}, {"current_step", "Click \"Share\"."}, {"phase", 2}, {"platform", "acme"}};
  const vision::FallbackOptions options(context);
  auto step = [&page] { return share(*page); };
  auto agent = [](vision::BrowserPage&, const vision::FlowContext&, const std::string& reason) {
    return run_computer_use_agent(reason);
  };
  const auto outcome = co_await vision::with_vision_fallback(*page, std::move(step), options, std::move(agent));
  switch (outcome.way()) {
    case vision::FallbackWay::step:
    case vision::FallbackWay::rescued: std::cout << "the step: " << outcome.step() << "\n"; break;
    case vision::FallbackWay::verdict: std::cout << "vision: " << outcome.verdict().reason << "\n"; break;
    case vision::FallbackWay::agent: std::cout << "the agent: " << outcome.agent() << "\n"; break;
  }
}

int main() {
  return stage::run(share_the_board);
}
