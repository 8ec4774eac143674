// The success-path observer: after a scripted step that worked, vision says in the
// background what it would have done, beside what the step really did.
//
//   build/release/examples/modes/example_observer
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/json.hpp>
#include <iostream>

#include "examples/modes/stage.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;
namespace json = boost::json;

// The scripted step. What it acted on is the truth to compare vision with.
asio::awaitable<json::object> click_share(vision::BrowserPage& page) {
  const json::value truth = co_await page.evaluate(
      "(() => { const b = document.querySelector('#share').getBoundingClientRect();"
      "  return {true_x_ratio: (b.x + b.width / 2) / innerWidth, true_y_ratio: (b.y + b.height / 2) / innerHeight,"
      "          label: 'Share', clickedTag: 'BUTTON', scope: 'page', url: 'board'}; })()");
  co_await page.evaluate("document.querySelector('#share').click()");
  co_return truth.as_object();
}

asio::awaitable<void> share_the_board(std::shared_ptr<vision::chromium::ChromiumPage> page) {
  const vision::FlowContext context = {
      {"workflow_name", "share"}, {"current_step", "Click \"Share\"."}, {"phase", 2}, {"platform", "acme"}};
  vision::ObserverOptions site(context, "share-board");
  site.run_id("run-1").dom_ground_truth(co_await click_share(*page));

  // Most pipelines give no callback: the record is in the shadow log anyway. This
  // one waits for it, because the browser closes when the example ends.
  const asio::any_io_executor executor = co_await asio::this_coro::executor;
  asio::steady_timer recorded(executor, asio::steady_timer::time_point::max());
  auto show = [&recorded](std::exception_ptr error, json::object record) {
    if (!error) std::cout << "recorded: " << record.at("vision") << " beside " << record.at("dom_ground_truth") << "\n";
    recorded.cancel();
  };
  vision::observe_in_background(executor, page, site, std::move(show));
  std::cout << "the pipeline goes on\n";
  boost::system::error_code cancelled;
  co_await recorded.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
}

int main() {
  return stage::run(share_the_board);
}
