// Asks over HTTP and act steps in one process, in twenty equal parts, and what the
// process holds after each.
//   long_run URL IMAGE ASKS STEPS
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <stdexcept>

#include "bench/memory.hpp"
#include "bench/support.hpp"
#include "vision/client/http/http_messages_client.hpp"

using namespace vision;
namespace asio = boost::asio;

namespace {

constexpr int parts = 20;

void rethrow(std::exception_ptr error) {
  if (error) std::rethrow_exception(error);
}

asio::awaitable<void> ask(VisionClient& client, Bytes image, long& left) {
  const FlowContext context = {{"workflow_name", "share"}};
  const ImgMeta meta(1280, 800, 1.0, 0.0);
  while (left-- > 0) {
    const ActionResult result = co_await client.ask(image, meta, context);
    if (result.action != ActionVerb::click) throw std::runtime_error(result.reason);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  const Bytes image = bench::read_bytes(arguments.at(1));
  const long asks = std::stol(arguments.at(2)) / parts, steps = std::stol(arguments.at(3)) / parts;
  bench::be_host();
  asio::io_context io;
  const auto http =
      std::make_shared<HttpMessagesClient>("bench-key-0123456789", HttpOptions().base_url(arguments.at(0)));
  VisionClient asked(http, VisionClientOptions().call_budget(asks + 1));
  bench::MemoryWorld world;
  bench::MemoryPage page{image};
  const auto model = std::make_shared<bench::MemoryModel>(std::chrono::milliseconds(500));
  VisionClient driven(model, VisionClientOptions().call_budget(steps + 1));

  boost::json::array samples;
  for (int part = 0; part < parts; ++part) {
    long left = asks;
    for (int i = 0; i < 8; ++i) asio::co_spawn(io, ask(asked, image, left), rethrow);
    io.restart();
    io.run();  // returns only when no timer and no socket is waited for
    asio::co_spawn(world.io, bench::mission(page, driven, steps), rethrow);
    world.run([] {});
    for (VisionClient* const client : {&asked, &driven}) client->metrics.reset();  // as between two runs of a pipeline
    samples.push_back(boost::json::object{{"resident_kb", bench::process_status("VmRSS")},
                                          {"descriptors", bench::open_descriptors()},
                                          {"threads", bench::process_status("Threads")}});
  }
  bench::print({{"samples", std::move(samples)}});
}
