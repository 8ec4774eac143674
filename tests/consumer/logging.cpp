// Routes the library's log lines into the host's own logger, and prints what arrives.
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <boost/asio/io_context.hpp>
#include <iostream>
#include <memory>

#include "vision/vision.hpp"

// Names that hosts have for rooms of their own.
namespace text = std;
namespace http = boost::asio;
using namespace vision;

int main() {
  auto logger = std::make_shared<spdlog::logger>("vision", std::make_shared<spdlog::sinks::ostream_sink_mt>(std::cout));
  logger->set_pattern("the host's logger: %v");
  spdlog::register_logger(logger);

  http::io_context io;
  // Fails, because no model registry was supplied, and logs that.
  observe_in_background(io.get_executor(), {}, ObserverOptions({}, text::string("home")));
  io.run();
}
