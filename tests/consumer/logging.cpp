// Routes the library's log lines into the host's own logger, and prints what arrives.
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <boost/asio/io_context.hpp>
#include <iostream>
#include <memory>

#include "vision/wirein/observer.hpp"

int main() {
  auto logger = std::make_shared<spdlog::logger>("vision", std::make_shared<spdlog::sinks::ostream_sink_mt>(std::cout));
  logger->set_pattern("the host's logger: %v");
  spdlog::register_logger(logger);

  boost::asio::io_context io;
  // Fails, because no model registry was supplied, and logs that.
  vision::observe_in_background(io.get_executor(), {}, vision::ObserverOptions({}, "home"));
  io.run();
}
