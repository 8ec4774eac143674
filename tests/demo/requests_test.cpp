// The local model as a client sees it: what it accepts, and how it refuses.
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "examples/local_model/local_model.hpp"
#include "vision/records/base64.hpp"

namespace local_model {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace json = boost::json;
using loopback::Request;
using loopback::Response;

const std::string pixel =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";

std::string png_head(unsigned char width_high_byte) {
  std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0\x1f\x15\xc4\x89", 33);
  png[18] = static_cast<char>(width_high_byte);
  png += std::string("\0\0\0\x0dIDAT", 8);  // cut short
  return vision::_b64(png);
}

json::object good_body() {
  return json::parse(R"({"model": "m", "max_tokens": 512, "thinking": {"type": "disabled"}, "system": "s",
    "tools": [{"name": "propose_action", "description": "d", "input_schema": {"type": "object"}}],
    "tool_choice": {"type": "tool", "name": "propose_action"},
    "messages": [{"role": "user", "content": [
      {"type": "image", "source": {"type": "base64", "media_type": "image/png", "data": ")" +
                     pixel + R"("}},
      {"type": "text", "text": "# Task\n1. Press \"Enter\"."}]}]})")
      .as_object();
}

Request good_request(const std::string& body = json::serialize(good_body())) {
  Request request(http::verb::post, "/v1/messages", 11);
  request.set("x-api-key", "right");
  request.set("anthropic-version", "2023-06-01");
  request.set(http::field::content_type, "application/json");
  request.body() = body;
  return request;
}

class LocalModelTest : public testing::Test {
 protected:
  Response send(Request request) {
    std::optional<Response> response;
    asio::co_spawn(io_, exchange(std::move(request), response), [](std::exception_ptr error) {
      if (error) std::rethrow_exception(error);
    });
    while (!response) io_.run_one();
    return std::move(*response);
  }

  asio::awaitable<void> exchange(Request request, std::optional<Response>& out) {
    asio::ip::tcp::socket socket(io_);
    const asio::ip::tcp::endpoint endpoint(asio::ip::address_v4::loopback(), model_.port());
    co_await socket.async_connect(endpoint, asio::use_awaitable);
    request.prepare_payload();
    co_await http::async_write(socket, request, asio::use_awaitable);
    boost::beast::flat_buffer buffer;
    Response response;
    co_await http::async_read(socket, buffer, response, asio::use_awaitable);
    out = std::move(response);
  }

  void expect_error(const Response& response, unsigned status, const std::string& type, const std::string& part) {
    EXPECT_EQ(response.result_int(), status) << response.body();
    const json::value body = json::parse(response.body());
    EXPECT_EQ(body.at("type"), "error");
    EXPECT_EQ(body.at("error").at("type"), json::value(type));
    EXPECT_NE(std::string(body.at("error").at("message").as_string()).find(part), std::string::npos) << response.body();
    EXPECT_EQ(body.at("request_id"), json::value(std::string(response["request-id"])));
  }

  asio::io_context io_;
  LocalModel model_{io_.get_executor(), LocalModelOptions().api_key("right")};
};

TEST_F(LocalModelTest, AnswersInTheVendorsShape) {
  const Response response = send(good_request());
  ASSERT_EQ(response.result_int(), 200u) << response.body();
  EXPECT_FALSE(response["request-id"].empty());
  const json::value body = json::parse(response.body());
  EXPECT_EQ(body.at("stop_reason"), "tool_use");
  EXPECT_EQ(body.at("model"), "m");
  EXPECT_GT(body.at("usage").at("input_tokens").as_int64(), 1);
  const json::value& call = body.at("content").at(0);
  EXPECT_EQ(call.at("type"), "tool_use");
  EXPECT_EQ(call.at("name"), "propose_action");
  EXPECT_EQ(call.at("input").at("action"), "key");
  EXPECT_EQ(call.at("input").at("key"), "Enter");
}

TEST_F(LocalModelTest, RefusesFaultyHeads) {
  const struct {
    const char *header, *value;  // a header changed or, for null, removed
    unsigned status;
    const char *type, *part;
  } cases[] = {
      {"x-api-key", nullptr, 401, "authentication_error", "x-api-key"},
      {"x-api-key", "wrong", 401, "authentication_error", "invalid x-api-key"},
      {"anthropic-version", nullptr, 400, "invalid_request_error", "anthropic-version"},
      {"anthropic-version", "2024-01-01", 400, "invalid_request_error", "2024-01-01"},
      {"content-type", "text/plain", 400, "invalid_request_error", "content-type"},
  };
  for (const auto& c : cases) {
    Request request = good_request();
    if (c.value == nullptr) {
      request.erase(c.header);
    } else {
      request.set(c.header, c.value);
    }
    expect_error(send(std::move(request)), c.status, c.type, c.part);
  }
  Request elsewhere = good_request();
  elsewhere.target("/v1/complete");
  expect_error(send(std::move(elsewhere)), 404, "not_found_error", "/v1/complete");
  Request get = good_request("");
  get.method(http::verb::get);
  expect_error(send(std::move(get)), 405, "invalid_request_error", "POST");
  expect_error(send(good_request(std::string(33 << 20, ' '))), 413, "request_too_large", "maximum size");
}

TEST_F(LocalModelTest, RefusesFaultyBodies) {
  const std::string media = "/messages/0/content/0/source/media_type", data = "/messages/0/content/0/source/data";
  const struct {
    std::string where;  // the member changed, as a JSON pointer
    std::string value;  // its new value as JSON; empty to remove it
    const char* part;   // of the message
  } cases[] = {
      {"/model", "", "model: Field required"},
      {"/model", "7", "model: Input should be a valid string"},
      {"/max_tokens", "", "max_tokens: Field required"},
      {"/max_tokens", "0", "max_tokens: Input should be greater"},
      {"/max_tokens", "1.5", "max_tokens: Input should be a valid integer"},
      {"/surprise", "1", "surprise: Extra inputs are not permitted"},
      {"/stream", "true", "stream"},
      {"/system", "7", "system: "},
      {"/system", R"([{"type": "image"}])", "system.0.type"},
      {"/thinking", R"({"type": "enabled", "budget_tokens": 1024})", "Thinking may not be enabled"},
      {"/tools", "", "not found in provided tools"},
      {"/tools/0/name", R"("a b")", "tools.0.name: String should match"},
      {"/tools/0/input_schema", "7", "tools.0.input_schema"},
      {"/tools/0/surprise", "7", "tools.0.surprise: Extra"},
      {"/tool_choice", "", "forced tool"},
      {"/tool_choice/type", R"("auto")", "forced tool"},
      {"/tool_choice/name", R"("other")", "'other' not found"},
      {"/messages", "", "messages: Field required"},
      {"/messages", "[]", "at least one message"},
      {"/messages/0/role", R"("system")", "messages.0.role"},
      {"/messages/0/role", R"("assistant")", "first message"},
      {"/messages/0/content", "[]", "messages.0.content: must have non-empty content"},
      {"/messages/0/content/1/text", R"("")", "must be non-empty"},
      {"/messages/0/content/1/type", R"("video")", "messages.0.content.1.type"},
      {media, R"("image/jpeg")", "appears to be a image/png image"},
      {media, R"("image/bmp")", "Input should be"},
      {data, R"("not base64")", "Invalid base64"},
      {data, "\"" + pixel.substr(0, 40) + "\\n" + pixel.substr(40) + "AAA\"", "Invalid base64"},
      {data, R"("aGVsbG8gd29ybGQhISEh")", "Could not process image"},
      {data, "\"" + png_head(0) + "\"", "Could not process image"},
      {data, "\"" + png_head(0x40) + "\"", "8000 pixels"},
      {data, "\"" + std::string((10 << 20) + 4, 'A') + "\"", "exceeds 10 MB"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.where + " = " + c.value.substr(0, 60));
    json::value body = good_body();
    const auto slash = c.where.rfind('/');
    json::object& parent = slash == 0 ? body.as_object() : body.at_pointer(c.where.substr(0, slash)).as_object();
    parent.erase(c.where.substr(slash + 1));
    if (!c.value.empty()) parent[c.where.substr(slash + 1)] = json::parse(c.value);
    expect_error(send(good_request(json::serialize(body))), 400, "invalid_request_error", c.part);
  }
  for (const std::string& text : {std::string("{"), std::string("[]"), std::string(), std::string(5000, '[')}) {
    expect_error(send(good_request(text)), 400, "invalid_request_error", "The request body is not");
  }
}

TEST_F(LocalModelTest, StopsInTheMiddleOfAPicture) {
  std::optional<Response> response;
  bool ended = false;
  asio::co_spawn(io_, exchange(good_request(), response), [&](std::exception_ptr) { ended = true; });
  for (int i = 0; i < 8; ++i) io_.run_one();
  model_.stop();
  io_.run();  // returns: nothing is left running
  EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace local_model
