#include "examples/modes/stage.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <iostream>

#include "examples/models.hpp"
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
  using vision::StaticModelRegistry;
  vision::set_model_registry(std::make_shared<StaticModelRegistry>(examples::light_model, examples::heavy_model));
  try {
    asio::io_context io;
    const auto stop_model = serve_model(io);
    std::exception_ptr failure;
    asio::co_spawn(io, play(example), [&](std::exception_ptr error) {
      failure = error;
      stop_model();
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
