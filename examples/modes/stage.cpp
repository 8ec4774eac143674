#include "examples/modes/stage.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>

#include "examples/local_model/local_model.hpp"
#include "vision/vision.hpp"

namespace stage {
namespace {

namespace asio = boost::asio;

// "#old-share" is what a script written for last month's page would look for.
const char* const board =
    "data:text/html,<title>Board</title>"
    "<body style='font:32px DejaVu Sans;background:white;color:black'>"
    "<p>Board</p>"
    "<p><button id='share' style='font:32px DejaVu Sans;padding:12px 24px' "
    "onclick=\"state.textContent='Link: panel-42';document.title='Shared'\">Share</button></p>"
    "<p id='state'>Nobody else can see it</p>";

asio::awaitable<void> play(Example& example) {
  auto browser = co_await vision::chromium::launch();
  auto page = co_await browser->new_page();
  co_await reset(*page);
  co_await example(std::move(page));
  co_await browser->close();
}

}  // namespace

asio::awaitable<void> reset(vision::chromium::ChromiumPage& page) {
  return page.navigate(board);
}

int run(Example example) {
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>("claude-haiku-4-5", "claude-opus-4-6"));
  try {
    asio::io_context io;
    std::optional<local_model::LocalModel> model;
    if (!std::getenv("ANTHROPIC_API_KEY")) {
      model.emplace(io.get_executor());
      ::setenv("ANTHROPIC_API_KEY", "any", 1);
      ::setenv("ANTHROPIC_BASE_URL", model->base_url().c_str(), 1);
      ::setenv("no_proxy", "127.0.0.1", 1);
    }
    std::exception_ptr failure;
    asio::co_spawn(io, play(example), [&](std::exception_ptr error) {
      failure = error;
      if (model) model->stop();
    });
    io.run();
    if (failure) std::rethrow_exception(failure);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "failed: " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace stage
