// A MessagesClient of the host's own: a gateway that takes the Messages API's JSON
// over a protocol of its own, here plain HTTP with a token. The program serves such
// a gateway itself; it answers one question and refuses the next.
#include <boost/asio.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/json.hpp>
#include <iostream>

#include "docs/programs/picture_page.hpp"
#include "vision/client/api_error.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace json = boost::json;
using asio::ip::tcp;

namespace {

// [client]
class GatewayClient : public vision::MessagesClient {
 public:
  GatewayClient(tcp::endpoint gateway, std::string token) : gateway_(std::move(gateway)), token_(std::move(token)) {}

  asio::awaitable<json::value> create(const vision::MessagesRequest& request) override {
    const http::response<http::string_body> response = co_await post(request.body());
    if (response.result() != http::status::ok) {
      vision::APIStatusError::Details details;
      details.status = static_cast<int>(response.result_int());
      vision::throw_status_error("gateway: " + response.body(), std::move(details));  // 429 and 5xx are retried
    }
    boost::system::error_code error;
    json::value answer = json::parse(response.body(), error);
    if (error) throw vision::APIResponseValidationError("gateway: the answer is not JSON: " + error.message());
    co_return answer;
  }

 private:
  asio::awaitable<http::response<http::string_body>> post(std::string body) const {
    http::request<http::string_body> request(http::verb::post, "/ask", 11, std::move(body));
    request.set(http::field::authorization, "Bearer " + token_);
    request.prepare_payload();
    http::response<http::string_body> response;
    boost::beast::flat_buffer buffer;
    try {
      tcp::socket socket(co_await asio::this_coro::executor);
      co_await socket.async_connect(gateway_, asio::use_awaitable);
      co_await http::async_write(socket, request, asio::use_awaitable);
      co_await http::async_read(socket, buffer, response, asio::use_awaitable);
    } catch (const boost::system::system_error& error) {
      if (error.code() == asio::error::operation_aborted) throw;  // cancelled, by a time limit or by the caller
      throw vision::APIConnectionError("gateway: " + error.code().message());  // retried
    }
    co_return response;
  }

  tcp::endpoint gateway_;
  std::string token_;
};
// [client]

// [answer]
constexpr const char* answer = R"({
  "content": [{
    "type": "tool_use",
    "name": "propose_action",
    "input": {"action": "click", "x_ratio": 0.92, "y_ratio": 0.06, "confidence": 0.9,
              "reason": "The Share button is in the toolbar", "next_expected_state": "A dialog opens"}
  }],
  "usage": {"input_tokens": 1500, "output_tokens": 80}
})";
// [answer]

asio::awaitable<void> serve(tcp::acceptor& acceptor) {
  for (const auto status : {http::status::ok, http::status::forbidden}) {
    tcp::socket socket = co_await acceptor.async_accept(asio::use_awaitable);
    boost::beast::flat_buffer buffer;
    http::request<http::string_body> request;
    co_await http::async_read(socket, buffer, request, asio::use_awaitable);
    http::response<http::string_body> response(status, 11);
    response.body() = status == http::status::ok ? answer : "this project may not ask";
    response.prepare_payload();
    co_await http::async_write(socket, response, asio::use_awaitable);
  }
}

asio::awaitable<void> ask_twice(vision::VisionClient& client, vision::BrowserPage& page) {
  const vision::FlowContext context = {{"workflow_name", "share"}};
  for (int i = 0; i < 2; ++i) {
    const vision::ActionResult result = co_await client.act(page, context);
    std::cout << result.action << ": " << result.reason << "\n";
  }
}

}  // namespace

int main() {
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>("light-model-id", "heavy-model-id"));
  asio::io_context io;
  tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  vision::VisionClient client(std::make_shared<GatewayClient>(acceptor.local_endpoint(), "a-token"));
  PicturePage page;
  const auto rethrow = [](std::exception_ptr error) {
    if (error) std::rethrow_exception(error);
  };
  asio::co_spawn(io, serve(acceptor), rethrow);
  asio::co_spawn(io, ask_twice(client, page), rethrow);
  io.run();
}
