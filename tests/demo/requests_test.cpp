// The local model as a client sees it: what it accepts, and how it refuses.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/json/parse.hpp>

#include "examples/local_model/local_model.hpp"
#include "vision/text/internal/base64.hpp"

namespace local_model {
namespace {

using boost::asio::ip::tcp;
using boost::json::value;

std::string png_head(unsigned char width_high_byte) {
  std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x06\0\0\0\x1f\x15\xc4\x89", 33);
  png[18] = static_cast<char>(width_high_byte);
  png += std::string("\0\0\0\x0dIDAT", 8);  // cut short
  return vision::_b64(png);
}

const std::string pixel =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";
const std::string good_head =
    "POST /v1/messages HTTP/1.1\r\nx-api-key: right\r\nanthropic-version: 2023-06-01\r\nconnection: close\r\n"
    "content-type: application/json\r\ncontent-length: ";
const std::string good_body = R"({"model": "m", "max_tokens": 512, "thinking": {"type": "disabled"}, "system": "s",
    "tools": [{"name": "propose_action", "description": "d", "input_schema": {"type": "object"}}],
    "tool_choice": {"type": "tool", "name": "propose_action"},
    "messages": [{"role": "user", "content": [
      {"type": "image", "source": {"type": "base64", "media_type": "image/png", "data": ")" +
                              pixel + R"("}},
      {"type": "text", "text": "# Task\n1. Press \"Enter\"."}]}]})";

/// A good request with one text replaced.
std::string request_with(const std::string& text, const std::string& replacement) {
  std::string head = good_head, body = good_body;
  if (const auto at = body.find(text); at != body.npos) {
    body.replace(at, text.size(), replacement);
  } else {
    head.replace(head.find(text), text.size(), replacement);
  }
  return head + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class LocalModelTest : public testing::Test {
 protected:
  tcp::socket connected() {
    tcp::socket peer(io_);
    peer.connect({boost::asio::ip::address_v4::loopback(), model_.port()});
    return peer;
  }

  /// The response as its status with either the error or the tool's input.
  std::string send(const std::string& request) {
    tcp::socket peer = connected();
    boost::asio::write(peer, boost::asio::buffer(request));
    std::string response;
    bool ended = false;
    boost::asio::async_read(peer, boost::asio::dynamic_buffer(response), [&](auto...) { ended = true; });
    while (!ended) io_.run_one();
    EXPECT_NE(response.find("request-id: req_"), response.npos) << response;
    const value body = boost::json::parse(response.substr(response.find("\r\n\r\n") + 4));
    const bool is_good = body.at("type") != "error";
    const value& told = is_good ? body.at("content").at(0).at("input") : body.at("error");
    const auto text = [&](const char* member) { return " " + std::string(told.at(member).as_string()); };
    if (!is_good) return response.substr(9, 3) + text("type") + text("message");
    EXPECT_GT(body.at("usage").at("input_tokens").as_int64(), 1);
    return response.substr(9, 3) + " " + body.at("stop_reason").as_string().c_str() + text("action") + text("key");
  }

  boost::asio::io_context io_;
  LocalModel model_{io_.get_executor(), LocalModelOptions().api_key("right")};
};

TEST_F(LocalModelTest, AnswersGoodRequestsAndRefusesFaultyOnes) {
  const std::string invalid = "400 invalid_request_error ", source = "messages.0.content.0.image.source.data: ";
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"", "", "200 tool_use key Enter"},
      {"x-api-key: right", "x: y", "401 authentication_error x-api-key header"},
      {"x-api-key: right", "x-api-key: wrong", "401 authentication_error invalid x-api-key"},
      {"anthropic-version", "x", invalid + "anthropic-version: header"},
      {"application/json", "text/plain", invalid + "content-type: must"},
      {"messages HTTP", "complete HTTP", "404 not_found_error Not found: /v1/complete"},
      {"length: ", "length: 99999", "413 request_too_large Request exceeds"},
      {good_body, "[]", invalid + "The request body is not a JSON object"},
      {"\"system\"", "\"surprise\"", invalid + "surprise: Extra inputs are not permitted"},
      {"\"tool\"", "\"auto\"", invalid + "tool_choice.type: This local model answers only"},
      {"image/png", "image/jpeg", invalid + source + "The image was specified"},
      {pixel, pixel.substr(4) + "\\n", invalid + source + "Invalid base64"},
      {pixel, png_head(0x40), invalid + source + "At least one"},
      {pixel, png_head(0), invalid + "Could not process image"},
  };
  for (const auto& [text, replacement, expected] : rows) {
    EXPECT_EQ(send(request_with(text, replacement)).substr(0, expected.size()), expected);
  }
}

TEST_F(LocalModelTest, StopsInTheMiddleOfAPicture) {
  tcp::socket peer = connected();
  boost::asio::write(peer, boost::asio::buffer(request_with("", "")));
  for (int i = 0; i < 8; ++i) io_.run_one();
  model_.stop();
  io_.run();  // returns: nothing is left running
}

}  // namespace
}  // namespace local_model
