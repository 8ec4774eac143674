// Runs every mode on a real page, with nothing but the installed headers and
// libraries. ANTHROPIC_BASE_URL names the model; exit status 0 when all went right.
#include <boost/asio.hpp>
#include <chromium/browser.hpp>
#include <iostream>
#include <stdexcept>
#include <vision/vision.hpp>

namespace asio = boost::asio;
using vision::BrowserPage;
using vision::FlowContext;

namespace {

class AgentError : public std::runtime_error, public vision::CuaOriginMark {
 public:
  using std::runtime_error::runtime_error;
};

void expect(bool holds, const char* what) {
  if (!holds) throw std::logic_error(std::string("not so: ") + what);
  std::cout << "  " << what << std::endl;
}

const char* const page_source =
    "data:text/html,<body style='font:32px DejaVu Sans;background:white;color:black'>"
    "<p>Board</p><p><button style='font:32px DejaVu Sans' onclick=\"document.title='shared';"
    "document.getElementById('state').textContent='Link: ready'\">Share</button></p>"
    "<p id='state'>Nothing yet</p>";

asio::awaitable<bool> is_shared(BrowserPage& page) {
  const auto title = co_await page.evaluate("document.title");
  co_return title == "shared";
}

asio::awaitable<void> drive(vision::chromium::ChromiumPage& page, const FlowContext& context) {
  co_await page.navigate(page_source);
  auto mission = vision::ActLoopOptions(context, "consumer");
  mission.mission_prompt("1. Click \"Share\".\n2. Report the text after \"Link:\".");
  const auto verdict = co_await vision::act_loop(page, mission);
  expect(verdict.action == "declare_success" && co_await is_shared(page), "the act loop fulfils its mission");
}

asio::awaitable<void> shadow(vision::chromium::ChromiumPage& page, const FlowContext& context) {
  co_await page.navigate(page_source);
  const auto site = vision::ObserverOptions(context, "consumer");
  auto agent = [&page]() -> asio::awaitable<std::unique_ptr<int>> {
    co_await page.evaluate("document.querySelector('button').click()");
    co_return std::make_unique<int>(7);
  };
  const auto given = co_await vision::shadow_observe_then_cua(page, agent, site);
  expect(*given == 7 && co_await is_shared(page), "shadow mode gives what the agent gave");

  auto failing = []() -> asio::awaitable<void> {
    throw AgentError("the agent gave up");
    co_return;
  };
  bool marked = false;
  try {
    co_await vision::shadow_observe_then_cua(page, failing, site);
  } catch (const AgentError& error) {
    marked = error._kx_cua_origin && vision::is_cua_origin(error);
  }
  expect(marked, "shadow mode throws the agent's own error, marked");
}

asio::awaitable<void> observe(vision::chromium::ChromiumPage& page, const FlowContext& context) {
  co_await page.navigate(page_source);
  const auto record = co_await vision::observe_only(page, vision::ObserverOptions(context, "consumer"));
  const auto* vision_block = record.at("vision").if_object();
  expect(vision_block && vision_block->contains("action") && vision_block->at("action") == "click",
         "the observer records what vision would have done");
  expect(!co_await is_shared(page), "the observer leaves the page alone");
}

asio::awaitable<void> rescue(vision::chromium::ChromiumPage& page, const FlowContext& context) {
  co_await page.navigate(page_source);
  int runs = 0;
  auto step = [&page, &runs]() -> asio::awaitable<std::string> {
    ++runs;
    if (!co_await is_shared(page)) throw std::runtime_error("the selector #old matches nothing");
    co_return "done";
  };
  const auto result = co_await vision::with_vision_fallback(page, step, vision::FallbackOptions(context));
  expect(result.index() == 0 && std::get<0>(result) == "done" && runs == 2, "the wrapper rescues a failed step");
}

asio::awaitable<void> all_modes() {
  auto browser = co_await vision::chromium::launch();
  auto page = co_await browser->new_page();
  const FlowContext context = {{"workflow_name", "share"}, {"current_step", "Click \"Share\"."}, {"phase", 2}};
  co_await drive(*page, context);
  co_await shadow(*page, context);
  co_await observe(*page, context);
  co_await rescue(*page, context);
  expect(vision::default_client().metrics.call_count == 6, "every call is in the ledger");
  co_await browser->close();
}

}  // namespace

int main() {
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>("light-model", "heavy-model"));
  asio::io_context io;
  std::exception_ptr failure;
  asio::co_spawn(io, all_modes(), [&](std::exception_ptr e) { failure = e; });
  io.run();
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    std::cerr << "consumer: " << error.what() << std::endl;
    return 1;
  }
}
