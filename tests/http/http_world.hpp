#pragma once

#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/json/serialize.hpp>
#include <memory>
#include <string>

#include "tests/http/scripted_server.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/text/errors.hpp"

namespace vision::test {

inline const std::string key = "sk-canary-0123456789";

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
                   asio::bind_cancellation_slot(cancel.slot(), [this](std::exception_ptr error) {
                     if (error) ending = ending_of(error);
                     ended = true;
                   }));
  }

  asio::cancellation_signal cancel;
  bool ended = false;
  std::string ending;
  APIConnectionError::Reason reason = APIConnectionError::Reason::other;

 private:
  asio::awaitable<void> body(HttpMessagesClient& client, MessagesRequest request) {
    const boost::json::value answer = co_await client.create(request);
    ending = boost::json::serialize(answer);
  }

  std::string ending_of(const std::exception_ptr& error) {
    try {
      std::rethrow_exception(error);
    } catch (const APIConnectionError& connection) {
      reason = connection.reason();
    } catch (...) {  // has none
    }
    const std::string text = text::full_exception_text(error);
    EXPECT_EQ(text.find(key), text.npos) << text;
    return text.starts_with("system_error: ") ? "cancelled" : text;
  }
};

/// Runs one request to its end on a loop that servers share.
inline std::string ask(asio::io_context& io, HttpMessagesClient& client,
                       const MessagesRequest& request = make_request(), Call&& call = Call()) {
  call.start(io.get_executor(), client, request);
  while (!call.ended) io.run_one();
  return call.ending;
}

inline HttpMessagesClient client_for(const ScriptedServer& server, HttpOptions options = HttpOptions()) {
  return HttpMessagesClient(key, options.base_url(server.url()));
}

}  // namespace vision::test
