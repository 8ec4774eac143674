// Whatever messages a browser sends, everything that waits for it ends, and
// nothing but the driver's own errors comes of it.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/system/system_error.hpp>

#include "chromium/connection.hpp"
#include "chromium/errors.hpp"
#include "chromium/remote_value.hpp"
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"

namespace {

namespace asio = boost::asio;
namespace json = boost::json;
using namespace vision::chromium;
using vision::fuzz::require;

// Plays the messages of one input, one per line, once a command has come.
class Script : public Transport {
 public:
  explicit Script(vision::fuzz::Input input) : input_(input) {}
  asio::awaitable<std::string> read() override {
    if (input_.empty()) throw boost::system::system_error(asio::error::eof);
    co_return std::string(input_.until('\n'));
  }
  asio::awaitable<void> write(std::string) override { co_return; }
  void close() noexcept override {}

 private:
  vision::fuzz::Input input_;
};

asio::awaitable<void> evaluate(std::shared_ptr<Session> session, int& ended) {
  try {
    json::object result = co_await session->call("Runtime.evaluate");
    if (const auto* picture = result.if_contains("data"); picture && picture->is_string()) {
      require(decode_base64(picture->get_string()).size() <= picture->get_string().size(), "a picture has a size");
    }
    evaluated_value(std::move(result));
  } catch (const BrowserError&) {
  }
  ++ended;
}

void rethrow(std::exception_ptr error) {
  if (error) std::rethrow_exception(error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  asio::io_context context;
  int ended = 0;
  auto connection = Connection::open(context.get_executor(), std::make_unique<Script>(vision::fuzz::Input(data, size)),
                                     std::chrono::hours(1));
  for (const char* id : {"", "P", "P"}) {
    const auto session = connection->session(id);
    session->on_event([](std::string_view, const json::object&) {});
    asio::co_spawn(context, evaluate(session, ended), rethrow);
  }
  context.run();
  require(ended == 3, "every command ends");
  require(connection->ended() != nullptr, "the browser's end is noticed");
  return 0;
}
