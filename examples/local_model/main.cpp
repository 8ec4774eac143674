#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "examples/local_model/local_model.hpp"
#include "vision/text/internal/numbers.hpp"

namespace local_model {
extern const char* const usage;  // usage.txt
}

namespace {

// Returns the exit status when the program is to end at once.
std::optional<int> read_arguments(int argc, char** argv, local_model::LocalModelOptions& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "-h" || name == "--help") {
      std::fputs(local_model::usage, stdout);
      return 0;
    }
    const char* value = i + 1 < argc ? argv[++i] : nullptr;
    const auto port = value != nullptr && name == "--port" ? vision::text::parse_integer(value) : std::nullopt;
    if (port && *port >= 0 && *port <= 65535) {
      options.port(static_cast<std::uint16_t>(*port));
    } else if (name == "--key" && value != nullptr && *value != '\0') {
      options.api_key(value);
    } else {
      std::fprintf(stderr, "vision-local-model: cannot understand \"%s%s%s\"; --help lists the options\n", name.c_str(),
                   value ? " " : "", value ? value : "");
      return 2;
    }
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    local_model::LocalModelOptions options;
    if (const auto code = read_arguments(argc, argv, options)) return *code;
    boost::asio::io_context loop;
    local_model::LocalModel model(loop.get_executor(), options);
    boost::asio::signal_set signals(loop, SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code& error, int) {
      if (!error) model.stop();
    });
    std::printf("%s\n", model.base_url().c_str());
    std::fflush(stdout);
    loop.run();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vision-local-model: %s\n", error.what());
    return 1;
  }
}
