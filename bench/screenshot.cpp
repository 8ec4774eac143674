// Screenshots of one page in a Chromium: through ChromiumPage, and the same
// command sent raw with its reply only received. Alternates the two.
//   screenshot ROUNDS --profile DIRECTORY --draw SCRIPT [--ratio R] [--fast 1]
// The browser that uses the profile directory has an open debugging port.
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "bench/support.hpp"
#include "chromium/browser.hpp"
#include "chromium/protocol/devtools_url.hpp"
#include "chromium/protocol/websocket_transport.hpp"

using namespace vision;
namespace asio = boost::asio;

namespace {

std::string wait_for_port(const std::filesystem::path& profile) {
  for (std::string line;;) {
    std::ifstream file(profile / "DevToolsActivePort");
    if (std::getline(file, line) && !file.eof()) return line;
    ::usleep(20'000);
  }
}

struct Shot {
  double seconds = 0;
  std::size_t bytes = 0;
};

asio::awaitable<Shot> take_raw(chromium::Transport& raw, std::string command) {
  const bench::Meter meter;
  co_await raw.write(std::move(command));
  const std::string reply = co_await raw.read();
  co_return Shot{meter.wall_s(), reply.size()};
}

asio::awaitable<Shot> take_ours(BrowserPage& page, std::ptrdiff_t& peak_bytes) {
  bench::reset_peak_allocation();
  const std::ptrdiff_t before = bench::allocations().live_bytes;
  const bench::Meter meter;
  const Bytes image = co_await page.screenshot(ScreenshotOptions());
  const Shot shot{meter.wall_s(), image.size()};
  peak_bytes = std::max(peak_bytes, bench::allocations().peak_bytes - before);
  co_return shot;
}

asio::awaitable<void> run(const bench::Arguments& arguments, boost::json::object& out) {
  const long rounds = std::stol(arguments.at(0));
  const double ratio = static_cast<double>(arguments.number("ratio", 1));
  const bool is_fast = arguments.number("fast", 0) != 0;
  const std::string port = wait_for_port(arguments.text("profile"));
  auto browser = co_await chromium::connect("http://127.0.0.1:" + port);
  auto page = co_await browser->new_page(chromium::PageOptions().device_pixel_ratio(ratio));
  page->optimize_for_speed(is_fast);
  const Bytes draw = bench::read_bytes(arguments.text("draw"));
  (void)co_await page->evaluate(std::string(draw.view()));
  chromium::DevToolsUrl url;
  url.scheme = "ws";
  url.host = "127.0.0.1";
  url.port = port;
  url.path = "/devtools/page/" + page->target_id();
  const auto raw = co_await chromium::WebSocketTransport::connect(url);
  const std::string command =
      R"({"id":1,"method":"Page.captureScreenshot","params":{"format":"png","optimizeForSpeed":)" +
      std::string(is_fast ? "true}}" : "false}}");
  // The ratio holds for the session that set it.
  co_await raw->write(R"({"id":1,"method":"Emulation.setDeviceMetricsOverride","params":{"width":1280,"height":800,)"
                      R"("mobile":false,"deviceScaleFactor":)" +
                      std::to_string(ratio) + "}}");
  (void)co_await raw->read();

  boost::json::array ours_s, raw_s;
  std::size_t image_bytes = 0;
  std::ptrdiff_t peak_bytes = 0;
  for (long i = -1; i < rounds; ++i) {  // the first round only warms up
    // By turns one or the other comes first: what follows a picture at once may find
    // the browser still at work.
    Shot theirs, ours;
    if (i % 2 == 0) theirs = co_await take_raw(*raw, command);
    ours = co_await take_ours(*page, peak_bytes);
    if (i % 2 != 0) theirs = co_await take_raw(*raw, command);
    if (i < 0) continue;
    ours_s.push_back(ours.seconds);
    raw_s.push_back(theirs.seconds);
    image_bytes = ours.bytes;
  }
  out = {{"ours_s", std::move(ours_s)},
         {"raw_s", std::move(raw_s)},
         {"image_bytes", image_bytes},
         {"peak_bytes", peak_bytes}};
  raw->close();
  co_await page->close();
  co_await browser->close();
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  asio::io_context io;
  boost::json::object out;
  asio::co_spawn(io, run(arguments, out), [](std::exception_ptr error) {
    if (error) std::rethrow_exception(error);
  });
  io.run();
  bench::print(out);
}
