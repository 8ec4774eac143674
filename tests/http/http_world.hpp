#pragma once

#include <gmock/gmock.h>

#include <boost/json/serialize.hpp>

#include "tests/http/scripted_server.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/running.hpp"
#include "vision/client/api_error.hpp"
#include "vision/client/http/http_messages_client.hpp"

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

/// One request. In every error the key is looked for.
struct Call : Watched<boost::json::value> {
  Call(asio::io_context& io, HttpMessagesClient& client, MessagesRequest request = make_request())
      : Watched(io, create(*this, client, std::move(request)), [&io] { io.run_one(); }) {}

  /// The response's JSON text, "cancelled", or the error as text.
  std::string ending() {
    const std::string text = error();
    EXPECT_EQ(text.find(api_key), text.npos) << text;
    if (!wait()) return boost::json::serialize(get());
    return text.starts_with("system_error: ") ? "cancelled" : text;
  }
  APIConnectionError::Reason reason() {
    try {
      get();
    } catch (const APIConnectionError& connection) {
      return connection.reason();
    }
    return APIConnectionError::Reason::other;
  }

  std::weak_ptr<int> frame;  ///< of the coroutine that waits for the response

 private:
  static asio::awaitable<boost::json::value> create(Call& call, HttpMessagesClient& client, MessagesRequest request) {
    const auto alive = std::make_shared<int>();
    call.frame = alive;
    co_return co_await client.create(request);
  }
};

/// Runs one request to its end on a loop that servers share.
inline std::string ask(asio::io_context& io, HttpMessagesClient& client,
                       const MessagesRequest& request = make_request()) {
  return Call(io, client, request).ending();
}

inline HttpMessagesClient client_for(const ScriptedServer& server, HttpOptions options = HttpOptions()) {
  return HttpMessagesClient(api_key, options.base_url(server.url()));
}

/// For a TLS server with a certificate for `host` that it has signed itself, valid for
/// so many days, and written to the file `name`.pem.
inline asio::ssl::context tls_server(const std::string& name, const std::string& host, int days = 1) {
  const std::string key = name + ".key", request = name + ".csr", certificate = name + ".pem";
  const std::string command = "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name +
                              " -addext subjectAltName=DNS:" + host + " -keyout " + key + " -out " + request +
                              " 2>errors && openssl x509 -req -in " + request + " -signkey " + key +
                              " -copy_extensions copy -days " + std::to_string(days) + " -out " + certificate +
                              " 2>>errors";
  EXPECT_EQ(std::system(command.c_str()), 0) << read_file("errors");
  asio::ssl::context context(asio::ssl::context::tls_server);
  context.use_certificate_file(certificate, asio::ssl::context::pem);
  context.use_private_key_file(key, asio::ssl::context::pem);
  return context;
}

}  // namespace vision::test
