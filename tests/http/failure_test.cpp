#include <boost/beast/zlib/deflate_stream.hpp>
#include <boost/json/parse.hpp>
#include <fstream>

#include "tests/http/certificates.hpp"
#include "tests/http/http_world.hpp"
#include "tests/http/resolver.hpp"
#include "tests/support/environment.hpp"
#include "vision/client/vision_client.hpp"
#include "vision/text/json_text.hpp"
#include "vision/wirein/shadow_log.hpp"

namespace vision {
namespace {

using namespace test;
using Then = Reply::Then;
using Read = Reply::Read;

// Asks a server with one scripted reply, then once more to see that the client
// is usable still.
std::string ask_scripted(const Reply& reply, const HttpOptions& options = {}) {
  asio::io_context io;
  ScriptedServer server(io, {reply, {ok}});
  HttpMessagesClient client = client_for(server, options);
  const std::string ending = ask(io, client);
  EXPECT_EQ(ask(io, client), R"({"content":[]})") << "after: " << ending;
  return ending;
}

std::string vendor_error(const std::string& type, const std::string& message, const std::string& more = "") {
  return R"({"type": "error", "error": {"type": ")" + type + R"(", "message": ")" + message + "\"}" + more + "}";
}

TEST(HttpFailure, EveryStatusHasItsError) {
  const std::string request_id = R"(, "request_id": "req_1")";
  const std::string hint = R"(. The configured model "model-x" refuses this client's fixed request ()";
  const std::string hint_end = "); name a model that accepts it in the model registry";
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"400 Bad Request", "", vendor_error("invalid_request_error", "max_tokens: too big", request_id),
       "BadRequestError: max_tokens: too big (HTTP 400, invalid_request_error, request req_1)"},
      {"400 Bad Request", "", vendor_error("invalid_request_error", "tool_choice forces tool use"),
       "BadRequestError: tool_choice forces tool use (HTTP 400, invalid_request_error)" + hint +
           "a forced tool choice" + hint_end},
      {"400 Bad Request", "", vendor_error("invalid_request_error", "thinking.type: disabled is not supported"),
       "BadRequestError: thinking.type: disabled is not supported (HTTP 400, invalid_request_error)" + hint +
           "thinking switched off" + hint_end},
      {"401 Unauthorized", "request-id: req_2\r\n", vendor_error("authentication_error", "invalid x-api-key " + key),
       "AuthenticationError: invalid x-api-key [API key] (HTTP 401, authentication_error, request req_2)"},
      {"402 Payment Required", "", vendor_error("billing_error", "no credit"),
       "APIStatusError: no credit (HTTP 402, billing_error)"},
      {"403 Forbidden", "", vendor_error("permission_error", "no"),
       "PermissionDeniedError: no (HTTP 403, permission_error)"},
      {"404 Not Found", "", vendor_error("not_found_error", "model: model-x"),
       "NotFoundError: model: model-x (HTTP 404, not_found_error)"},
      {"409 Conflict", "", vendor_error("c", "m"), "ConflictError: m (HTTP 409, c)"},
      {"413 Payload Too Large", "", "<html>\r\n<b>too large</b>",
       "RequestTooLargeError: Payload Too Large: <html>\\r\\n<b>too large</b> (HTTP 413)"},
      {"422 X", "", vendor_error("u", "two\\nlines\\u001b[1m"),
       "UnprocessableEntityError: two\\nlines\\u001b[1m (HTTP 422, u)"},
      {"429 Too Many Requests", "retry-after: 3\r\n", vendor_error("rate_limit_error", "slow down"),
       "RateLimitError: slow down (HTTP 429, rate_limit_error)"},
      {"500 X", "Request-Id: a\tb\r\n", "", "InternalServerError: Internal Server Error (HTTP 500, request a\\tb)"},
      {"502 Bad Gateway", "", std::string(205, 'x') + key,
       "InternalServerError: Bad Gateway: " + std::string(200, 'x') + "... (HTTP 502)"},
      {"503 X", "", std::string(195, 'x') + key,
       "InternalServerError: Service Unavailable: " + std::string(195, 'x') + "[API ... (HTTP 503)"},
      {"504 X", "content-encoding: gzip\r\n", "\x1f\x8b\x08", "InternalServerError: Gateway Timeout (HTTP 504)"},
      {"529 X", "", R"({"error": ["\u0000", {"message": 5}]})",
       R"(InternalServerError: Overloaded: {"error": ["\u0000", {"message": 5}]} (HTTP 529))"},
      {"598 X", "", R"({"error": {"message": 5}})",
       R"(InternalServerError: unknown status: {"error": {"message": 5}} (HTTP 598))"},
      {"418 X", "", "\xff\xfe", "APIStatusError: unknown status: \xef\xbf\xbd\xef\xbf\xbd (HTTP 418)"},
  };
  for (const auto& [status, headers, body, expected] : rows) {
    EXPECT_EQ(ask_scripted({response(status, body, headers)}), expected);
    // The status stands when the body does not come whole.
    const std::string cut = ask_scripted({"HTTP/1.1 " + status + "\r\ncontent-length: 99999\r\n\r\n<", Then::close});
    EXPECT_EQ(cut.substr(0, cut.find(':')), expected.substr(0, expected.find(':')));
  }
  const std::string early = ask_scripted({response("413 X", "big", "connection: close\r\n"), Then::drain, Read::head});
  EXPECT_EQ(early, "RequestTooLargeError: Payload Too Large: big (HTTP 413)");
}

std::string chunked(const std::string& body) {
  char size[16];
  std::snprintf(size, sizeof size, "%zx", body.size());
  return std::string("HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n") + size + "\r\n" + body + "\r\n0\r\n\r\n";
}

std::string nested(int depth) {
  const auto n = static_cast<std::size_t>(depth - 1);
  return "{\"a\":" + std::string(n, '[') + std::string(n, ']') + "}";
}

TEST(HttpFailure, ResponsesThatAreNoneOrBreakOff) {
  const std::string head = "HTTP/1.1 200 OK\r\n";
  const std::string exact = "{\"a\":\"" + std::string(1000 - 8, 'x') + "\"}";
  const std::string validation = "APIResponseValidationError: ", connection = "APIConnectionError: ";
  const std::tuple<Reply, std::string> rows[] = {
      {{response("200 OK", exact)}, exact},
      {{chunked(exact)}, exact},
      {{head + "\r\n{\"until\":\"close\"}", Then::close}, R"({"until":"close"})"},
      {{"HTTP/1.1 100 Continue\r\nrequest-id: no\r\n\r\n" + response("200 OK", "[", "Request-ID: req_9\r\n")},
       validation + "the response is incomplete JSON, ending after 1 bytes (HTTP 200, request req_9)"},
      {{response("200 OK", exact + " ")}, validation + "the body of the response"},
      {{head + "content-length: 1001\r\n\r\n", Then::drain}, "is larger than the limit of 1000 bytes"},
      {{chunked(exact + " ")}, "is larger than the limit of 1000 bytes"},
      {{response("200 OK", nested(64))}, nested(64)},
      {{response("200 OK", nested(65))}, validation + "the response nests deeper than 64 levels (HTTP 200)"},
      {{response("200 OK", "")}, validation + "the response is empty (HTTP 200)"},
      {{"HTTP/1.1 204 No Content\r\n\r\n"}, validation + "the response is empty (HTTP 204)"},
      {{response("200 OK", "<html> " + key)}, validation + "the response is not JSON (syntax error"},
      {{response("200 OK", "{} {}")}, "the response is not JSON (extra data"},
      {{response("200 OK", "[1, 2]")}, validation + "the response is no JSON object: [1, 2] (HTTP 200)"},
      {{response("200 OK", "{}", "Content-Encoding: gzip\r\n")}, "the response is encoded as \"gzip\""},
      {{head + "content-length: 3\r\n\r\n{\"a\": 1}"}, validation + "the response is incomplete JSON"},
      {{head + "content-length: 50\r\n\r\n{", Then::close}, connection + "the response was cut short by 127.0.0.1"},
      {{head + "content-length: 50\r\n\r\n{", Then::reset}, connection + "the connection broke off to 127.0.0.1"},
      {{head + "transfer-encoding: chunked\r\n\r\n50\r\n{", Then::close}, connection},
      {{head + "content-length: many\r\n\r\n{}", Then::close}, "Invalid Content-Length"},
      {{head + "content-length: 99999999999999999999999\r\n\r\n{}", Then::close}, "limit of 1000 bytes"},
      {{head + "content-length: -1\r\n\r\n{}", Then::close}, "Invalid Content-Length"},
      {{head + "transfer-encoding: chunked\r\n\r\nfffffffffffffffff\r\n{}", Then::close}, connection},
      {{"HTTP/1.1 99999 X\r\n\r\n", Then::close}, connection},
      {{"HTTP/99.9 200 OK\r\n\r\n{}", Then::close}, connection},
      {{head + "content-len", Then::close}, connection + "the connection broke off to 127.0.0.1"},
      {{"rubbish\r\n\r\n", Then::close}, connection},
      {{"", Then::close}, connection + "the connection broke off to 127.0.0.1"},
      {{"", Then::reset}, connection + "the connection broke off to 127.0.0.1"},
      {{"", Then::reset, Read::none}, connection + "the connection broke off to 127.0.0.1"},
      {{head + std::string(1 << 20, 'h'), Then::drain}, validation + "the header of the response"},
  };
  for (const auto& [reply, expected] : rows) {
    const std::string ending = ask_scripted(reply, HttpOptions().max_response_bytes(1000));
    EXPECT_NE(ending.find(expected), ending.npos) << expected << "\n is not in: " << ending;
  }
}

std::string deflated(const std::string& text) {
  std::string out(text.size() / 100 + 1000, '\0');
  beast::zlib::z_params params;
  params.next_in = text.data();
  params.avail_in = text.size();
  params.next_out = out.data();
  params.avail_out = out.size();
  boost::system::error_code error;
  beast::zlib::deflate_stream().write(params, beast::zlib::Flush::finish, error);
  out.resize(out.size() - params.avail_out);
  return out;
}

// A peer without end is left as soon as a limit is passed.
TEST(HttpFailure, WhatHasNoEndIsCutOff) {
  const std::string head = "HTTP/1.1 200 OK\r\n", bomb = deflated(std::string(64 << 20, ' '));
  const std::string chunk = "1000\r\n" + std::string(0x1000, ' ') + "\r\n";
  const std::tuple<Reply, std::string> rows[] = {
      {{head, Then::flood, Read::all, "x-filler: 0123456789\r\n"}, "the header of the response"},
      {{head + "x-filler: ", Then::flood, Read::all, "0123456789"}, "the header of the response"},
      {{"", Then::flood, Read::all, "HTTP/1.1 100 Continue\r\n\r\n"}, "the header of the response"},
      {{head + "\r\n", Then::flood, Read::all, std::string(1000, ' ')}, "limit of 100000 bytes"},
      {{head + "transfer-encoding: chunked\r\n\r\n", Then::flood, Read::all, chunk}, "limit of 100000 bytes"},
      {{head + "transfer-encoding: deflate\r\n\r\n" + bomb, Then::close}, "limit of 100000 bytes"},
      {{response("200 OK", bomb, "content-encoding: deflate\r\n")}, "the response is encoded as \"deflate\""},
  };
  for (const auto& [reply, expected] : rows) {
    asio::io_context io;
    ScriptedServer server(io, {reply, {ok}});
    HttpMessagesClient client = client_for(server, HttpOptions().max_response_bytes(100'000));
    const std::string ending = ask(io, client);
    EXPECT_TRUE(ending.starts_with("APIResponseValidationError: ")) << ending;
    EXPECT_NE(ending.find(expected), ending.npos) << expected << "\n is not in: " << ending;
    EXPECT_LT(server.flooded, 16u << 20) << expected;  // what the sockets between them hold
  }
}

TEST(HttpFailure, AnAnswerCutAnywhereIsNone) {
  for (std::size_t size = 0; size < ok.size(); ++size) {
    const std::string ending = ask_scripted({ok.substr(0, size), Then::close});
    EXPECT_TRUE(ending.starts_with("APIConnectionError: ")) << size << ": " << ending;
  }
}

asio::awaitable<void> ask_into(VisionClient& client, AskOptions options, std::optional<ActionResult>& result) {
  const FlowContext context;
  const Bytes png(std::string("PNG"));
  result = co_await client.ask(png, ImgMeta(1, 1, 1, 0), context, std::move(options));
}

ActionResult ask_vision(asio::io_context& io, const ScriptedServer& server, double seconds) {
  auto http = std::make_shared<HttpMessagesClient>(key, HttpOptions().base_url(server.url()));
  VisionClient client(http, VisionClientOptions().default_model("model-x"));
  std::optional<ActionResult> result;
  asio::co_spawn(io, ask_into(client, AskOptions().timeout_s(seconds).transport_retry(false), result),
                 [](std::exception_ptr) {});
  while (!result) io.run_one();
  return *result;
}

TEST(HttpFailure, APeerThatDripsIsLeftAtTheDeadline) {
  for (const Reply& reply :
       {Reply{"HTTP/1.1 200 OK\r\nx: ", Then::drip}, Reply{"HTTP/1.1 200 OK\r\n\r\n{", Then::drip}}) {
    asio::io_context io;
    ScriptedServer server(io, {reply});
    EXPECT_EQ(ask_vision(io, server, 0.05).reason, "vision timeout after 0.05s");
  }
}

TEST(HttpFailure, NumbersBeyondEveryRange) {
  for (const std::string number :
       {"1e400", "-1e400", "99999999999999999999999", "-99999999999999999999999", "1e-400"}) {
    std::string answer =
        R"({"usage": {"input_tokens": #, "output_tokens": #}, "content": [{"type": "tool_use", "name": )"
        R"("propose_action", "input": {"action": "click", "reason": "r", "confidence": #, "x_ratio": #, )"
        R"("y_ratio": #, "duration_ms": #, "scroll_dy_ratio": #, "next_expected_state": "n"}}]})";
    for (auto at = answer.find('#'); at != answer.npos; at = answer.find('#')) answer.replace(at, 1, number);
    asio::io_context io;
    ScriptedServer server(io, {{response("200 OK", answer)}});
    const ActionResult result = ask_vision(io, server, 60);
    EXPECT_TRUE(result.action == "click" || result.reason.starts_with("unexpected error: ")) << number << result.reason;
    EXPECT_TRUE(!result.x_ratio || (*result.x_ratio >= 0 && *result.x_ratio <= 1)) << number;
    EXPECT_NO_THROW(boost::json::parse(text::to_json(_observe_action_record(result)))) << number;
  }
}

TEST(HttpFailure, ARedirectIsNotFollowed) {
  asio::io_context io;
  ScriptedServer other(io, {{ok}});
  for (const char* status : {"301 X", "302 X", "307 X", "308 X"}) {
    ScriptedServer server(io, {{response(status, "", "location: " + other.url() + "/" + key + "\r\n")}});
    HttpMessagesClient client = client_for(server);
    const std::string ending = ask(io, client);
    EXPECT_TRUE(ending.starts_with("APIStatusError: ")) << ending;
    EXPECT_NE(ending.find("redirects to " + other.url() + "/[API key], which is not followed"), ending.npos) << ending;
  }
  EXPECT_EQ(other.connections, 0);
}

TEST(HttpFailure, EndpointsThatCannotBeReached) {
  asio::io_context io;
  tcp::acceptor refusing(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  const std::string port = std::to_string(refusing.local_endpoint().port());
  refusing.close();
  ScriptedServer silent(io, {{"", Then::drain, Read::none}}), plain(io, {{"hello\r\n", Then::close, Read::none}});
  const auto fast = HttpOptions().connect_timeout(std::chrono::milliseconds(50));
  const std::tuple<std::string, HttpOptions, std::string, std::string> rows[] = {
      {"http://127.0.0.1:" + port, {}, "APIConnectionError: cannot reach 127.0.0.1:" + port, "refused"},
      {"http://missing.test:" + port,
       {},
       "APIConnectionError: cannot reach missing.test:" + port,
       "Could not resolve host"},
      {silent.url("127.0.0.1", "https"), fast, "APITimeoutError: timed out connecting to 127.0.0.1",
       "SSL connection timeout"},
      {plain.url("127.0.0.1", "https"),
       {},
       "APIConnectionError: no trusted TLS connection to 127.0.0.1",
       "wrong version number"},
      {"https://127.0.0.1:" + port, HttpOptions().ca_file("/nowhere/ca.pem"), "APIConnectionError: ", ""},
  };
  for (const auto& [url, options, start, words] : rows) {
    HttpMessagesClient client(key, HttpOptions(options).base_url(url).allow_plain_http(true));
    const std::string ending = ask(io, client);
    EXPECT_TRUE(ending.starts_with(start)) << ending;
    EXPECT_NE(ending.find(words), ending.npos) << ending;
  }
}

TEST(HttpFailure, OnlyATrustedCertificateForTheHostWillDo) {
  const ScratchDirectory scratch;
  const Authority authority("authority"), stranger("stranger");
  std::ofstream("ca.pem") << authority.pem();
  auto good = authority.server("localhost"), foreign = stranger.server("localhost");
  auto expired = authority.server("localhost", -60), other = authority.server("other.example");
  auto old = authority.server("localhost"), self_signed = authority.server("localhost", 3600, true);
  ::SSL_CTX_set_cipher_list(old.native_handle(), "ALL:@SECLEVEL=0");
  ::SSL_CTX_set_min_proto_version(old.native_handle(), TLS1_VERSION);
  ::SSL_CTX_set_max_proto_version(old.native_handle(), TLS1_1_VERSION);

  const std::string ca = scratch.path() / "ca.pem";
  using Reason = APIConnectionError::Reason;
  const std::tuple<asio::ssl::context*, std::string, std::string, Reason> rows[] = {
      {&good, ca, R"({"content":[]})", Reason::other},
      {&good, "", "unable to get local issuer certificate", Reason::untrusted_certificate},
      {&foreign, ca, "unable to get local issuer certificate", Reason::untrusted_certificate},
      {&self_signed, ca, "self-signed certificate", Reason::untrusted_certificate},
      {&expired, ca, "certificate has expired", Reason::expired_certificate},
      {&other, ca, "certificate subject name matches target host name 'localhost'", Reason::wrong_host},
      {&old, ca, "alert protocol version, TLS 1.2 is the oldest version accepted", Reason::old_protocol},
      {&good, "missing.pem", "missing.pem", Reason::no_tls},
  };
  for (const auto& [tls, ca_file, expected, reason] : rows) {
    asio::io_context io;
    ScriptedServer server(io, {{ok}}, tls);
    HttpMessagesClient client(key, HttpOptions().base_url(server.url("localhost")).ca_file(ca_file));
    const MessagesRequest request = make_request(2'000'000);
    for (int i = 0; i < 2; ++i) {
      Call call;
      const std::string ending = ask(io, client, request, std::move(call));
      EXPECT_EQ(call.reason, reason) << ending;
      EXPECT_NE(ending.find(expected), ending.npos) << expected << "\n is not in: " << ending;
      EXPECT_TRUE(tls == &good && ca_file == ca ? server.requests.back().body() == request.body()
                                                : ending.starts_with("APIConnectionError: no trusted TLS connection"));
    }
    if (expected[0] == '{')
      EXPECT_EQ(server.connections, 1);
    else
      EXPECT_TRUE(server.requests.empty());
  }
}

// Writing to a connection that the peer has reset raises SIGPIPE where that is
// not prevented, and ends the process.
TEST(HttpFailure, AResetWhileSending) {
  const ScratchDirectory scratch;
  const Authority authority("authority");
  std::ofstream("ca.pem") << authority.pem();
  auto tls = authority.server("localhost");
  asio::io_context io;
  ScriptedServer plain(io, {{"", Then::reset, Read::head}}), secure(io, {{"", Then::reset, Read::head}}, &tls);
  for (const ScriptedServer* server : {&plain, &secure}) {
    HttpMessagesClient client(key, HttpOptions().base_url(server->url("localhost")).ca_file("ca.pem"));
    const std::string ending = ask(io, client, make_request(16 << 20));
    EXPECT_TRUE(ending.starts_with("APIConnectionError: the connection broke off to localhost")) << ending;
  }
}

}  // namespace
}  // namespace vision
