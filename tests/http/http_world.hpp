#pragma once

#include <gmock/gmock.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/json/serialize.hpp>
#include <memory>
#include <string>

#include "tests/http/scripted_server.hpp"
#include "tests/support/environment.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/text/errors.hpp"

namespace vision::test {

using Then = Reply::Then;
using Read = Reply::Read;
using testing::HasSubstr;
using testing::StartsWith;

inline const std::string api_key = "sk-canary-0123456789";
inline const std::string answer = R"({"content":[]})";  // what comes of `ok`

inline MessagesRequest make_request(std::size_t image_bytes = 5) {
  std::string image(image_bytes, '\0');
  for (std::size_t i = 0; i < image_bytes; ++i) image[i] = static_cast<char>(i * 131 + (i >> 8));
  auto prefix = std::make_shared<const std::string>(request_prefix("model-x"));
  return MessagesRequest("model-x", std::move(prefix), Bytes(std::move(image)), "What now?");
}

/// One request and its ending: the response's JSON text, "cancelled", or the
/// error as text. In every error the key is looked for.
class Call {
 public:
  void start(const asio::any_io_executor& executor, HttpMessagesClient& client, const MessagesRequest& request) {
    asio::co_spawn(executor, body(client, request),
                   asio::bind_cancellation_slot(signal_.slot(), [this](std::exception_ptr error) {
                     if (error) ending = ending_of(error);
                     ended = true;
                   }));
  }
  void cancel() { signal_.emit(asio::cancellation_type::terminal); }
  /// Runs a loop until the request has ended.
  const std::string& wait(asio::io_context& io) {
    while (!ended) io.run_one();
    return ending;
  }

  bool ended = false;
  std::string ending;
  boost::json::value value;
  APIConnectionError::Reason reason = APIConnectionError::Reason::other;
  std::weak_ptr<int> frame;  ///< of the coroutine that waits for the response

 private:
  asio::awaitable<void> body(HttpMessagesClient& client, MessagesRequest request) {
    const auto alive = std::make_shared<int>();
    frame = alive;
    value = co_await client.create(request);
    ending = boost::json::serialize(value);
  }

  std::string ending_of(const std::exception_ptr& error) {
    try {
      std::rethrow_exception(error);
    } catch (const APIConnectionError& connection) {
      reason = connection.reason();
    } catch (...) {  // has none
    }
    const std::string text = text::full_exception_text(error);
    EXPECT_EQ(text.find(api_key), text.npos) << text;
    return text.starts_with("system_error: ") ? "cancelled" : text;
  }

  asio::cancellation_signal signal_;
};

/// Runs one request to its end on a loop that servers share.
inline std::string ask(asio::io_context& io, HttpMessagesClient& client,
                       const MessagesRequest& request = make_request()) {
  Call call;
  call.start(io.get_executor(), client, request);
  return call.wait(io);
}

inline HttpMessagesClient client_for(const ScriptedServer& server, HttpOptions options = HttpOptions()) {
  return HttpMessagesClient(api_key, options.base_url(server.url()));
}

}  // namespace vision::test
