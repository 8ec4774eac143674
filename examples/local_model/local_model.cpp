#include "examples/local_model/local_model.hpp"

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <optional>
#include <random>

#include "examples/local_model/decide.hpp"
#include "examples/local_model/ocr.hpp"
#include "examples/local_model/request_check.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"

namespace local_model {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace json = boost::json;
using loopback::Request;
using loopback::Response;

constexpr std::uint64_t largest_body = 32 * 1024 * 1024;

std::string new_id(const char* prefix) {
  static constexpr std::string_view letters = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnpqrstuvwxyz123456789";
  static std::mt19937_64 source{std::random_device{}()};  // of the event loop's thread
  std::uniform_int_distribution<std::size_t> pick(0, letters.size() - 1);
  std::string id = prefix;
  for (int i = 0; i < 20; ++i) id += letters[pick(source)];
  return id;
}

Response respond(http::status status, const json::object& body, const std::string& request_id) {
  Response response = loopback::make_response(status, "application/json", json::serialize(body));
  response.set("request-id", request_id);
  return response;
}

Response respond(const RequestFault& fault) {
  const std::string request_id = new_id("req_local_");
  json::object body;
  body["type"] = "error";
  body["error"] = {{"type", fault.type()}, {"message", fault.what()}};
  body["request_id"] = request_id;
  return respond(static_cast<http::status>(fault.status()), body, request_id);
}

Response refuse_unread(http::status status) {
  switch (status) {
    case http::status::payload_too_large:
      return respond(RequestFault(413, "request_too_large", "Request exceeds the maximum size"));
    case http::status::internal_server_error: return respond(RequestFault(500, "api_error", "Internal server error"));
    default: return respond(RequestFault(400, "invalid_request_error", "The request is not valid HTTP"));
  }
}

RequestFault invalid(const std::string& message) {
  return {400, "invalid_request_error", message};
}

// Validates everything but the body.
void check_head(const Request& request, const std::string& api_key) {
  const std::string target(request.target());
  const std::string path = target.substr(0, target.find('?'));
  if (path != "/v1/messages") throw RequestFault(404, "not_found_error", "Not found: " + path);
  if (request.method() != http::verb::post) {
    throw RequestFault(405, "invalid_request_error", "Method Not Allowed: use POST");
  }
  const std::string key(request["x-api-key"]);
  if (key.empty()) throw RequestFault(401, "authentication_error", "x-api-key header is required");
  if (!api_key.empty() && key != api_key) throw RequestFault(401, "authentication_error", "invalid x-api-key");
  const std::string version(request["anthropic-version"]);
  if (version.empty()) throw invalid("anthropic-version: header is required");
  if (version != "2023-06-01") throw invalid("anthropic-version: \"" + version + "\" is not a valid version");
  const std::string content_type(request[http::field::content_type]);
  const std::string media_type = content_type.substr(0, content_type.find(';'));
  if (media_type != "application/json") throw invalid("content-type: must be application/json");
}

Response respond(const CheckedRequest& request, const Proposal& proposal) {
  json::object input = to_tool_input(proposal);
  const std::size_t output_tokens = json::serialize(input).size() / 4 + 30;
  json::object call;
  call["type"] = "tool_use";
  call["id"] = new_id("toolu_local_");
  call["name"] = request.tool;
  call["input"] = std::move(input);
  json::object body;
  body["id"] = new_id("msg_local_");
  body["type"] = "message";
  body["role"] = "assistant";
  body["model"] = request.model;
  body["content"] = json::array{std::move(call)};
  body["stop_reason"] = "tool_use";
  body["stop_sequence"] = nullptr;
  body["usage"] = {{"input_tokens", request.input_tokens},
                   {"cache_creation_input_tokens", 0},
                   {"cache_read_input_tokens", 0},
                   {"output_tokens", output_tokens},
                   {"service_tier", "standard"}};
  return respond(http::status::ok, body, new_id("req_local_"));
}

}  // namespace

struct LocalModel::State {
  explicit State(std::string key) : api_key(std::move(key)) {}

  static asio::awaitable<Response> handle(std::shared_ptr<State> self, const Request& request) {
    try {
      check_head(request, self->api_key);
      CheckedRequest checked = check_request(request.body());
      Picture picture;
      if (!checked.image.empty()) picture = co_await self->reader->read(std::move(checked.image));
      co_return respond(checked, decide(checked.text, picture));
    } catch (const RequestFault& fault) {
      co_return respond(fault);
    } catch (const BadImage&) {
      co_return respond(invalid("Could not process image"));
    }
  }

  std::string api_key;
  std::optional<Ocr> reader{std::in_place};
};

LocalModel::LocalModel(const asio::any_io_executor& executor, LocalModelOptions options)
    : state_(std::make_shared<State>(options.api_key())) {
  auto handler = [state = state_](const Request& request) { return State::handle(state, request); };
  auto settings = loopback::ServerOptions().port(options.port()).body_limit(largest_body).refusal(refuse_unread);
  server_ = std::make_unique<loopback::LoopbackServer>(executor, std::move(handler), std::move(settings));
}

LocalModel::~LocalModel() {
  stop();
  state_->reader.reset();
}

std::uint16_t LocalModel::port() const noexcept {
  return server_->port();
}

std::string LocalModel::base_url() const {
  return server_->base_url();
}

void LocalModel::stop() {
  server_->stop();
}

}  // namespace local_model
