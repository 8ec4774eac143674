// The act loop: vision drives the page until the mission is done or a rail ends it.
//
//   build/release/examples/modes/example_act_loop
//
// Every step leaves a record in the shadow log, logs/vision_shadow.jsonl.
#include <iostream>

#include "examples/modes/stage.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

asio::awaitable<void> run_computer_use_agent() {
  std::cout << "the computer-use agent takes over\n";
  co_return;
}

asio::awaitable<void> share_the_board(std::shared_ptr<vision::chromium::ChromiumPage> page) {
  const vision::FlowContext context = {{"workflow_name", "share"}, {"phase", 2}, {"platform", "acme"}};
  vision::ActLoopOptions mission(context, "share-board");
  mission.run_id("run-1").max_steps(4).mission_prompt(
      "Share the board and find out its link.\n"
      "1. Click \"Share\".\n"
      "2. Report the text after \"Link:\".");

  const vision::ActionResult verdict = co_await vision::act_loop(*page, mission);
  std::cout << "verdict: " << verdict.action << ", " << verdict.reason << "\n";
  if (verdict.action != vision::ActionVerb::declare_success) co_await run_computer_use_agent();
}

int main() {
  return stage::run(share_the_board);
}
