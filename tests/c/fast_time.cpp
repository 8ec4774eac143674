// Lets a runtime's time pass faster, before anything on it uses time.
#include "tests/soak/fast_time.hpp"
#include "bindings/c/handles.hpp"

extern "C" void set_speed(vision_runtime* runtime, int speed) {
  const auto& loop = runtime->loop;
  loop->run([&] { vision::runtime::install_time_source(loop->io(), std::make_shared<vision::soak::FastTime>(speed)); });
}
