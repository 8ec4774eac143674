// Shadow mode: the computer-use agent acts; vision looks at the same screen at the
// same time and only says what it would have done. The shadow log pairs the two.
//
//   build/release/examples/modes/example_shadow_mode
#include <boost/json.hpp>
#include <iostream>

#include "examples/modes/stage.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

// Errors of the agent that carry the mark can be told from any other.
class AgentError : public std::runtime_error, public vision::CuaOriginMark {
 public:
  using std::runtime_error::runtime_error;
};

// A small scripted agent: clicks where it knows the button to be. Its text begins
// with its first action, so that the records can be compared with it.
asio::awaitable<boost::json::object> agent(vision::BrowserPage& page) {
  co_await page.mouse().click(70, 120);
  const auto title = co_await page.evaluate("document.title");
  if (title != "Shared") throw AgentError("the board is not shared after the click");
  boost::json::object result = {{"text", "click 0.05,0.15: the board is shared"}};
  co_return result;
}

asio::awaitable<void> share_the_board(std::shared_ptr<vision::chromium::ChromiumPage> page) {
  const vision::FlowContext context = {
      {"workflow_name", "share"}, {"current_step", "Click \"Share\"."}, {"phase", 2}, {"platform", "acme"}};
  vision::ObserverOptions site(context, "share-board");
  site.run_id("run-1");
  auto run_agent = [&page] { return agent(*page); };
  try {
    const auto result = co_await vision::shadow_observe_then_cua(*page, std::move(run_agent), site);
    std::cout << "the agent: " << result.at("text").as_string() << "\n";
  } catch (const std::exception& error) {
    std::cout << (vision::is_cua_origin(error) ? "the agent failed: " : "failed: ") << error.what() << "\n";
    throw;
  }
}

int main() {
  return stage::run(share_the_board);
}
