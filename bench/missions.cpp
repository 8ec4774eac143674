// Missions in memory, in virtual time.
//   missions MISSIONS STEPS [--times N] [--thinks MS] [--image BYTES] [--count 1]
// So many missions at once, again and again. The model thinks for 500 ms by default.
// Counts allocations, or else time.
#include <iostream>

#include "bench/memory.hpp"
#include "bench/support.hpp"

using namespace vision;

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  const long missions = std::stol(arguments.at(0)), steps = std::stol(arguments.at(1));
  const long times = arguments.number("times", 1);
  bench::be_host();
  bench::MemoryWorld world;
  bench::MemoryPage page(Bytes(std::string(static_cast<std::size_t>(arguments.number("image", 500'000)), 'x')));
  const auto model = std::make_shared<bench::MemoryModel>(std::chrono::milliseconds(arguments.number("thinks", 500)));
  VisionClient client(model, VisionClientOptions().call_budget(missions * steps * times + 20));

  const auto start = [&](long count, long each) {
    for (long i = 0; i < count; ++i) {
      boost::asio::co_spawn(world.io, bench::mission(page, client, each), [](std::exception_ptr error) {
        if (error) std::rethrow_exception(error);
      });
    }
  };
  start(1, 20);
  world.run([] {});
  client.metrics.reset();

  const bool counts = arguments.number("count", 0) != 0;
  if (counts) bench::reset_peak_allocation();
  const bench::Allocations before = bench::allocations();
  std::ptrdiff_t waiting_bytes = 0;
  const bench::Meter meter;
  for (long i = 0; i < times; ++i) {
    start(missions, steps);
    world.run([&] { waiting_bytes = std::max(waiting_bytes, bench::allocations().live_bytes); });
  }
  const double total = static_cast<double>(missions * steps * times);
  if (!counts) {
    bench::print({{"cpu_s", meter.cpu_s() / total}});
    return 0;
  }
  bench::print({{"allocations", static_cast<double>(bench::allocations().calls - before.calls) / total},
                {"waiting_bytes", (waiting_bytes - before.live_bytes) / missions}});
}
