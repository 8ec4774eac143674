#include <boost/asio.hpp>
#include <iostream>

#include "chromium/browser.hpp"
#include "examples/models.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

asio::awaitable<void> ask_about(std::string url) {
  vision::VisionClient client;  // the key comes from ANTHROPIC_API_KEY
  auto browser = co_await vision::chromium::launch();
  auto page = co_await browser->new_page();
  co_await page->navigate(url);

  const vision::FlowContext context = {{"workflow_name", "share"}, {"current_step", "open the share dialog"}};
  auto options = vision::AskOptions().prompt("Click \"Share\".").timeout_s(8);
  const vision::ActionResult answer = co_await client.act(*page, context, options);
  std::cout << answer.action << ": " << answer.reason << "\n";

  const auto shot = co_await client.screenshot(*page);
  co_await vision::execute_action(*page, answer, shot.second);
  co_await browser->close();
}

int main(int argc, char** argv) {
  using vision::StaticModelRegistry;
  vision::set_model_registry(std::make_shared<StaticModelRegistry>(examples::light_model, examples::heavy_model));
  asio::io_context io;
  std::exception_ptr failure;
  asio::co_spawn(io, ask_about(argc > 1 ? argv[1] : "https://example.org"), [&](std::exception_ptr e) { failure = e; });
  io.run();
  if (failure) std::rethrow_exception(failure);
}
