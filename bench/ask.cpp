// Calls VisionClient::ask over HTTP.
//   ask URL IMAGE [--calls N] [--in-flight K] [--ca FILE]
//   ask request                prints a request whose image is empty
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <iostream>

#include "bench/support.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/vision.hpp"

namespace {

namespace asio = boost::asio;
using namespace vision;

const FlowContext context = {{"workflow_name", "share"},
                             {"phase", 2},
                             {"current_step", "open the share dialog"},
                             {"expected_outcome", "the dialog is open"}};
const ImgMeta meta(1280, 800, 1.0, 0.0);

struct Burst {
  long left;
  long failed;
};

asio::awaitable<void> call_in_turn(VisionClient& client, Bytes image, Burst& burst) {
  while (burst.left-- > 0) {
    const ActionResult result = co_await client.ask(image, meta, context);
    if (result.action == ActionVerb::click) continue;
    if (burst.failed++ == 0) std::cerr << "ask: " << result.reason << "\n";
  }
}

void run(asio::io_context& io, VisionClient& client, const Bytes& image, long in_flight, Burst& burst) {
  for (long i = 0; i < in_flight; ++i) {
    asio::co_spawn(io, call_in_turn(client, image, burst), [](std::exception_ptr error) {
      if (error) std::rethrow_exception(error);
    });
  }
  io.restart();
  io.run();
}

void print_request() {
  const auto prefix = std::make_shared<const std::string>(request_prefix(MODEL_SONNET()));
  const MessagesRequest request(MODEL_SONNET(), prefix, Bytes(), _build_user_message(context, std::nullopt, meta));
  std::cout << request.body() << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  bench::be_host();
  if (arguments.at(0) == "request") {
    print_request();
    return 0;
  }
  const long calls = arguments.number("calls", 100), in_flight = arguments.number("in-flight", 1);
  const auto http = std::make_shared<HttpMessagesClient>(
      "bench-key-0123456789", HttpOptions().base_url(arguments.at(0)).ca_file(arguments.text("ca")));
  VisionClient client(http, VisionClientOptions().call_budget(calls + in_flight + 1));
  asio::io_context io;

  Burst first{1, 0}, warm_up{in_flight, 0}, burst{calls, 0};
  run(io, client, Bytes(std::string("tiny")), 1, first);  // loads what is loaded on first use
  const long idle_kb = bench::process_status("VmRSS");
  const Bytes image = bench::read_bytes(arguments.at(1));
  bench::reset_peak_memory();
  run(io, client, image, in_flight, warm_up);
  const bench::Meter meter;
  run(io, client, image, in_flight, burst);
  bench::print({{"cpu_s", meter.cpu_s() / static_cast<double>(calls)},
                {"wall_s", meter.wall_s() / static_cast<double>(calls)},
                {"memory_kb", bench::process_status("VmHWM") - idle_kb}});
  return first.failed + warm_up.failed + burst.failed == 0 ? 0 : 1;
}
