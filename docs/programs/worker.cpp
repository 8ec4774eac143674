// What docs/cancellation.md shows of a worker: one browser for many runs, closed
// whether the runs succeed, a step throws, or a signal stops the process. The
// second run here fails, and the program must end all the same.
#include <boost/asio.hpp>
#include <iostream>

#include "chromium/browser.hpp"

namespace asio = boost::asio;

namespace {

asio::awaitable<void> one_run(vision::chromium::Browser& browser, std::string url) {
  const auto page = co_await browser.new_page();
  co_await page->navigate(url);
  co_await page->evaluate("document.querySelector('#share').click()");  // throws when there is no such element
  std::cout << "shared" << std::endl;
}

// [worker]
asio::awaitable<void> work(std::vector<std::string> urls) {
  const auto browser = co_await vision::chromium::launch();
  std::exception_ptr failure;
  try {
    for (const std::string& url : urls) co_await one_run(*browser, url);
  } catch (...) {
    failure = std::current_exception();  // a coroutine cannot await in the handler
  }
  // Without this line the await below throws at once when the worker was cancelled.
  co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
  co_await browser->close();
  if (failure) std::rethrow_exception(failure);
}

int run_worker(std::vector<std::string> urls) {
  asio::io_context io;
  asio::cancellation_signal stop;
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](boost::system::error_code error, int) {
    if (!error) stop.emit(asio::cancellation_type::terminal);
  });
  std::exception_ptr failure;
  auto ended = [&](std::exception_ptr error) {
    failure = error;
    signals.cancel();  // the last thing that keeps io.run() from returning
  };
  asio::co_spawn(io, work(std::move(urls)), asio::bind_cancellation_slot(stop.slot(), ended));
  io.run();
  try {
    if (failure) std::rethrow_exception(failure);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "worker: " << error.what() << std::endl;
    return 1;
  }
}
// [worker]

}  // namespace

int main() {
  return run_worker({"data:text/html,<button id=share>Share</button>", "data:text/html,<p>Nothing to click"});
}
