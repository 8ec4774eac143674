// From nothing to the first answer.
//   start URL IMAGE
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "bench/support.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/vision.hpp"

using namespace vision;
namespace asio = boost::asio;

namespace {

asio::awaitable<void> ask_ten_times(VisionClient& client, Bytes image, boost::json::array& wall_ms) {
  const FlowContext context = {{"workflow_name", "share"}};
  const ImgMeta meta(1280, 800, 1.0, 0.0);
  for (int i = 0; i < 10; ++i) {
    const bench::Meter meter;
    const ActionResult result = co_await client.ask(image, meta, context);
    if (result.action != ActionVerb::click) throw std::runtime_error(result.reason);
    wall_ms.push_back(meter.wall_s() * 1000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  const Bytes image = bench::read_bytes(arguments.at(1));
  const long files = bench::open_descriptors(), threads = bench::process_status("Threads");
  bench::be_host();
  const bench::Meter build;
  const auto http =
      std::make_shared<HttpMessagesClient>("bench-key-0123456789", HttpOptions().base_url(arguments.at(0)));
  VisionClient client(http, VisionClientOptions());
  const double build_ms = build.wall_s() * 1000;
  const long new_files = bench::open_descriptors() - files, new_threads = bench::process_status("Threads") - threads;

  asio::io_context io;
  boost::json::array wall_ms;
  asio::co_spawn(io, ask_ten_times(client, image, wall_ms), [](std::exception_ptr error) {
    if (error) std::rethrow_exception(error);
  });
  io.run();
  bench::print({{"files", new_files},
                {"threads", new_threads},
                {"threads_after", bench::process_status("Threads") - threads},
                {"build_ms", build_ms},
                {"first_ms", wall_ms.front()},
                {"tenth_ms", wall_ms.back()}});
}
