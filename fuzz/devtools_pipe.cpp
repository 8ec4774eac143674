// However a browser's bytes are cut on their way, the messages are the bytes between the
// NULs. Whatever they say, every command that waits for them ends, and only the driver's
// own errors come out.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/write.hpp>

#include "chromium/errors.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/pipe_transport.hpp"
#include "chromium/protocol/remote_value.hpp"
#include "fuzz/input.hpp"

namespace vision::fuzz {
namespace asio = boost::asio;
using namespace chromium;

namespace {

// Keeps the messages that came over the pipe, each with the NUL after it.
struct Recorder : PipeTransport {
  using PipeTransport::PipeTransport;
  asio::awaitable<std::string> read() override {
    std::string message = co_await PipeTransport::read();
    received += message + '\0';
    co_return message;
  }
  std::string received;
};

asio::awaitable<void> evaluate(std::shared_ptr<Session> session) {
  try {
    boost::json::object result = co_await session->command("Runtime.evaluate");
    if (const auto* picture = result.if_contains("data"); picture && picture->is_string()) {
      require(decode_base64(picture->get_string()).size() <= picture->get_string().size(), "a picture has a size");
    }
    evaluated_value(result);
  } catch (const BrowserError&) {
  }
}

}  // namespace

void check(Input input) {
  asio::io_context context;
  const auto work = asio::make_work_guard(context);  // an idle connection is not work
  asio::local::stream_protocol::socket browser(context), ours(context);
  asio::local::connect_pair(browser, ours);
  auto transport = std::make_unique<Recorder>(std::move(ours));
  const std::string& received = transport->received;
  const auto connection = Connection::open(context.get_executor(), std::move(transport), std::chrono::hours(1));
  int ended = 0;
  for (const char* id : {"", "P", "P"}) {
    const auto session = connection->session(id);
    session->set_event_handler([](std::string_view, const boost::json::object&) {});
    asio::co_spawn(context, evaluate(session), [&](std::exception_ptr error) {
      require(!error, "only the driver's own errors come out");
      ++ended;
    });
  }
  context.poll();
  const std::size_t size = 1 + input.number<std::uint8_t>();
  const std::string_view sent = input;
  while (!input.empty()) {
    asio::write(browser, asio::buffer(input.take(size)));
    context.poll();
  }
  browser.close();
  while (context.poll() > 0) continue;
  require(received == sent.substr(0, sent.rfind('\0') + 1), "every message, whole and in order");
  require(ended == 3 && connection->ended(), "every command ends, and the browser's end is noticed");
}

}  // namespace vision::fuzz
