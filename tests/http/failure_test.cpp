#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/http/http_world.hpp"

namespace {

std::function<void()> before_send;  // of libcurl's

}  // namespace

// Takes the C library's place for the shared libraries of this program too.
extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, const void* data, size_t size, int flags) {
  static const auto next = reinterpret_cast<decltype(&send)>(::dlsym(RTLD_NEXT, "send"));
  if (const auto run = std::exchange(before_send, nullptr)) {
    run();
    before_send = run;
  }
  return next(fd, data, size, flags);
}

namespace vision {
namespace {

using namespace test;
using Reason = APIConnectionError::Reason;

// Asks a server with one scripted reply, then once more to see that the client
// is usable still.
std::string ask_scripted(const Reply& reply, const HttpOptions& options = {}) {
  asio::io_context io;
  ScriptedServer server(io, {reply, {ok}});
  HttpMessagesClient client = client_for(server, options);
  const std::string ending = ask(io, client);
  EXPECT_LT(server.flooded, 16u << 20);  // what the sockets between them hold
  EXPECT_EQ(ask(io, client), answer) << "after: " << ending;
  return ending;
}

std::string vendor_error(const std::string& type, const std::string& message, const std::string& more = "") {
  return R"({"type": "error", "error": {"type": ")" + type + R"(", "message": ")" + message + "\"}" + more + "}";
}

TEST(HttpFailure, EveryStatusHasItsError) {
  const std::string refused = "(HTTP 400, t). The configured model \"model-x\" refuses this client's fixed request ";
  const std::string advice = "; name a model that accepts it in the model registry";
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"400 Bad Request", "", vendor_error("t", "max_tokens: too big", R"(, "request_id": "req_1")"),
       "BadRequestError: max_tokens: too big (HTTP 400, t, request req_1)"},
      {"400 X", "", vendor_error("t", "tool_choice forces tool use"),
       "BadRequestError: tool_choice forces tool use " + refused + "(a forced tool choice)" + advice},
      {"400 X", "", vendor_error("t", "thinking.type: disabled"),
       "BadRequestError: thinking.type: disabled " + refused + "(thinking switched off)" + advice},
      {"400 X", "", vendor_error("t", "thinking, tool_choice"),
       "BadRequestError: thinking, tool_choice " + refused + "(a forced tool choice with thinking switched off)" +
           advice},
      {"401 Unauthorized", "request-id: req_2\r\n",
       vendor_error("authentication_error", "invalid x-api-key " + api_key),
       "AuthenticationError: invalid x-api-key [API key] (HTTP 401, authentication_error, request req_2)"},
      {"403 X", "", vendor_error("t", "no"), "PermissionDeniedError: no (HTTP 403, t)"},
      {"404 X", "", vendor_error("t", "model: model-x"), "NotFoundError: model: model-x (HTTP 404, t)"},
      {"409 X", "", vendor_error("t", "m"), "ConflictError: m (HTTP 409, t)"},
      {"413 X", "", "<html>\r\n<b>", "RequestTooLargeError: Payload Too Large: <html>\\r\\n<b> (HTTP 413)"},
      {"422 X", "", vendor_error("t", "a\\n\\u001b["), "UnprocessableEntityError: a\\n\\u001b[ (HTTP 422, t)"},
      {"429 X", "retry-after: 3\r\n", vendor_error("t", "slow down"), "RateLimitError: slow down (HTTP 429, t)"},
      {"500 X", "Request-Id: a\tb\r\n", "", "InternalServerError: Internal Server Error (HTTP 500, request a\\tb)"},
      {"503 X", "", std::string(195, 'x') + api_key,
       "InternalServerError: Service Unavailable: " + std::string(195, 'x') + "[API ... (HTTP 503)"},
      {"504 X", "content-encoding: gzip\r\n", "\x1f\x8b\x08", "InternalServerError: Gateway Timeout (HTTP 504)"},
      {"529 X", "", R"({"error": ["\u0000"]})", R"(InternalServerError: Overloaded: {"error": ["\u0000"]} (HTTP 529))"},
  };
  for (const auto& [status, headers, body, expected] : rows) {
    EXPECT_EQ(ask_scripted({response(status, body, headers)}), expected);
    // The status stands when the body does not come whole.
    const std::string cut = ask_scripted({"HTTP/1.1 " + status + "\r\ncontent-length: 99999\r\n\r\n<", Then::close});
    EXPECT_EQ(cut.substr(0, cut.find(':')), expected.substr(0, expected.find(':')));
  }
  EXPECT_EQ(ask_scripted({response("413 X", "big", "connection: close\r\n"), Then::drain, Read::head}),
            "RequestTooLargeError: Payload Too Large: big (HTTP 413)");
}

// The server closes at once, and what is sent then fails. With TLS the answer is found even
// when it comes between two writes of one call into libcurl.
TEST(HttpFailure, AStatusThatComesDuringTheUploadIsTheOutcome) {
  const ScratchDirectory scratch;
  auto tls_context = tls_server("good", "localhost");
  const std::tuple<std::string, asio::ssl::context*, bool> ways[] = {
      {"plain", nullptr, false}, {"tls", &tls_context, false}, {"tls, between writes", &tls_context, true}};
  for (const auto& [way, tls, between_writes] : ways) {
    for (const char* status : {"413", "429", "529"}) {
      SCOPED_TRACE(way + ", " + status);
      asio::io_context io, server_io;
      ScriptedServer server(
          server_io,
          {{response(std::string(status) + " X", "", "connection: close\r\n"), Then::close, Read::head}, {ok}}, tls);
      HttpMessagesClient client(api_key, HttpOptions().base_url(server.url("localhost")).ca_file("good.pem"));
      if (between_writes) before_send = [&] { server_io.poll(); };
      Call call(io, client, make_request(2'000'000));
      while (!call.ended) server_io.poll(), io.poll_one();
      before_send = nullptr;
      EXPECT_THAT(call.ending(), testing::EndsWith(std::string("(HTTP ") + status + ")"));
      EXPECT_EQ(server.connections, 1);
    }
  }
}

TEST(HttpFailure, NothingOfAProxysCredentialsIsSaid) {
  const ScopedEnv none("no_proxy", ""), nor_this("NO_PROXY", "");
  const std::string rest = "127.0.0.1:1";
  for (const std::string& url :
       {"http://me:can#ary@" + rest, "http://me:can/ary@" + rest, "http://me:can?ary@" + rest,
        "http://me:can ary@" + rest, "htp://me:canary@" + rest, "htp//me:canary@" + rest,
        std::string("http://me:canary"), "http://me:4711#ary@" + rest, "http://me:canary@" + rest}) {
    const ScopedEnv proxy("https_proxy", url);
    asio::io_context io;
    HttpMessagesClient client(api_key, HttpOptions().base_url("https://gateway.test"));
    EXPECT_THAT(ask(io, client), testing::AllOf(StartsWith("APIConnectionError: "), testing::Not(HasSubstr("ary")),
                                                testing::Not(HasSubstr("can#")), testing::Not(HasSubstr("4711"))))
        << url;
  }
}

TEST(HttpFailure, ARedirectIsNotFollowed) {
  asio::io_context io;
  ScriptedServer other(io, {{ok}});
  const std::pair<std::string, std::string> locations[] = {
      {other.url() + "/" + api_key, other.url() + "/[API key]"},
      {other.url() + "/x?canary#canary", other.url() + "/x"},
      {other.url("me:canary@127.0.0.1"), "a URL with credentials"},
      {"//canary@127.0.0.1", "a URL with credentials"},
  };
  for (const char* status : {"301 X", "302 X", "307 X", "308 X"}) {
    for (const auto& [location, shown] : locations) {
      EXPECT_THAT(ask_scripted({response(status, "", "location: " + location + "\r\n")}),
                  testing::AllOf(StartsWith("APIStatusError: "), testing::Not(HasSubstr("canary")),
                                 HasSubstr("redirects to " + shown + ", which is not followed")));
    }
  }
  io.poll();
  EXPECT_EQ(other.connections, 0);
}

std::string nested(std::size_t depth) {
  return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

std::string crowded(int members) {
  std::string text = "{\"[{,\\\"\":[0,0]";
  for (int i = 1; i < members; ++i) text += ",\"\":0";
  return text + "}";
}

TEST(HttpFailure, ResponsesThatAreNoneOrBreakOffOrNeverEnd) {
  const std::string head = "HTTP/1.1 200 OK\r\n";
  const std::string bomb("x\xda\xed\xc1\x31\x01\0\0\0\xc2\xa0*\xeb\x9f\xd2\x10\xbe@", 18);
  const std::string deflated = bomb + std::string(1000, '\0');  // the beginning of a megabyte of blanks
  const std::string chunked = head + "transfer-encoding: chunked\r\n\r\n";
  const std::string exact = "{\"a\":\"" + std::string(1000 - 8, 'x') + "\"}";
  const std::string chunk = "1000\r\n" + std::string(0x1000, ' ') + "\r\n";
  const std::string validation = "APIResponseValidationError: ", connection = "APIConnectionError: ";
  const std::string broken = connection + "the connection broke off to 127.0.0.1";
  const std::string long_head = validation + "the header of the response from 127.0.0.1";
  const std::string long_body = " is larger than the limit of 1000 bytes";
  const std::tuple<Reply, std::string> rows[] = {
      {{response("200 OK", exact)}, exact},
      {{chunked + "3e8\r\n" + exact + "\r\n0\r\n\r\n"}, exact},
      {{head + "\r\n{\"until\":\"close\"}", Then::close}, R"({"until":"close"})"},
      {{"HTTP/1.1 100 Continue\r\nrequest-id: no\r\n\r\n" + response("200 OK", "[", "Request-ID: req_9\r\n")},
       validation + "the response is incomplete JSON, ending after 1 bytes (HTTP 200, request req_9)"},
      {{response("200 OK", exact + " ")}, validation + "the body of the response"},
      {{head + "content-length: 1001\r\n\r\n", Then::drain}, long_body},
      {{response("200 OK", R"({"a":[1e400,-1e400,1e-400,-99999999999999999999,0e999,0.11935319286735585]})")},
       "[Infinity,-Infinity,0E0,-1E20,0E0,1.1935319286735585E-1]"},
      {{response("200 OK", nested(64))}, nested(64)},
      {{response("200 OK", nested(65))}, validation + "the response nests deeper than 64 levels (HTTP 200)"},
      {{response("200 OK", "")}, validation + "the response is empty (HTTP 200)"},
      {{"HTTP/1.1 204 No Content\r\n\r\n"}, validation + "the response is empty (HTTP 204)"},
      {{response("200 OK", "<html> " + api_key)}, validation + "the response is not JSON (syntax error"},
      {{response("200 OK", "[1, 2]")}, validation + "the response is not a JSON object: [1, 2] (HTTP 200)"},
      {{response("200 OK", bomb, "Content-Encoding: deflate\r\n")}, "the response is encoded as \"deflate\""},
      {{head + "transfer-encoding: deflate\r\n\r\n" + deflated, Then::close}, long_body},
      {{head + "content-length: 3\r\n\r\n{\"a\": 1}"}, validation + "the response is incomplete JSON"},
      {{head + "content-length: 50\r\n\r\n{", Then::close}, connection + "the response was cut short by 127.0.0.1"},
      {{head + "content-length: 50\r\n\r\n{", Then::reset}, broken},
      {{chunked + "50\r\n{", Then::close}, connection},
      {{head + "content-length: many\r\n\r\n{}", Then::close}, "Invalid Content-Length"},
      {{head + "content-length: 99999999999999999999999\r\n\r\n{}", Then::close}, long_body},
      {{chunked + "fffffffffffffffff\r\n{}", Then::close}, connection},
      {{"HTTP/1.1 99999 X\r\n\r\n", Then::close}, connection},
      {{"", Then::reset}, broken},
      {{"", Then::reset, Read::none}, broken},
      {{head + std::string(1 << 20, 'h'), Then::drain}, long_head},
      {{head, Then::flood, Read::all, "x-filler: 0123456789\r\n"}, long_head},
      {{head + "x-filler: ", Then::flood, Read::all, "0123456789"}, long_head},
      {{"", Then::flood, Read::all, "HTTP/1.1 100 Continue\r\n\r\n"}, long_head},
      {{head + "\r\n", Then::flood, Read::all, std::string(1000, ' ')}, long_body},
      {{chunked, Then::flood, Read::all, chunk}, long_body},
      {{chunked + "1", Then::flood, Read::all, ";extension"}, validation + "the encoding of the response from"},
      {{head + "transfer-encoding: deflate\r\n\r\nx\xda", Then::flood, Read::all, std::string("\0\0\0\xff\xff", 5)},
       validation + "the encoding of the response from"},
      {{chunked + "c\r\n{\"a\":\"\\ud83d\r\n2\r\n\"}\r\n0\r\ncontent-encoding: gzip\r\nHTTP/1.1: 500\r\n\r\n"},
       "{\"a\":\"\xef\xbf\xbd\"}"},
      {{chunked + "7\r\n{\"a\":1}\r\n0\r\nHTTP/1.1 500 X\r\n\r\n"}, R"({"a":1})"},
  };
  for (const auto& [reply, expected] : rows) {
    EXPECT_THAT(ask_scripted(reply, HttpOptions().max_response_bytes(1000)), HasSubstr(expected));
  }
  EXPECT_THAT(ask_scripted({response("200 OK", crowded(256))}), StartsWith("{\"[{"));
  EXPECT_THAT(ask_scripted({response("200 OK", crowded(257))}), HasSubstr("an object of more than 256 members"));
  for (std::size_t size = 0; size < ok.size(); ++size) {
    EXPECT_THAT(ask_scripted({ok.substr(0, size), Then::close}), StartsWith(connection)) << size;
  }
}

// With none free no socket can be opened; with one it cannot be watched, and with two the
// pair through which a resolver's thread tells of its end cannot.
TEST(HttpFailure, ACallForWhichDescriptorsAreMissingEnds) {
  rlimit usual{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
  asio::io_context io;
  ScriptedServer server(io, {{response("200 OK", answer, "connection: close\r\n"), Then::leave}});
  HttpMessagesClient client = client_for(server);
  const std::string unwatched = "its connection cannot be watched: Too many open files";
  const std::tuple<std::string, rlim_t, std::string> rows[] = {
      {server.url(), 0, "Couldn't connect to server (Too many open files)"},
      {server.url(), 1, unwatched},
      {"http://missing.test", 2, unwatched},
  };
  for (const auto& [url, free, expected] : rows) {
    HttpMessagesClient starved(api_key, HttpOptions().base_url(url).allow_plain_http(true));
    EXPECT_EQ(ask(io, client), answer);  // and opens what stays open
    while (server.open() > 0) io.run_one();
    const int lowest = ::dup(0);
    ::close(lowest);
    int limit = lowest;
    for (rlim_t found = 0; found < free; ++limit) found += ::fcntl(limit, F_GETFD) < 0;
    const rlimit scarce{static_cast<rlim_t>(limit), usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &scarce), 0);
    const std::string ending = ask(io, starved);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_THAT(ending, testing::AllOf(StartsWith("APIConnectionError: "), HasSubstr(expected)));
  }
  EXPECT_EQ(ask(io, client), answer);
}

TEST(HttpEndpoint, IsReachedUnderATrustedNameOrNamedInTheError) {
  const ScratchDirectory scratch;
  auto good_tls = tls_server("good", "localhost"), other_tls = tls_server("other", "other.example");
  auto expired_tls = tls_server("expired", "localhost", -1), old_tls = tls_server("old", "localhost");
  ::SSL_CTX_set_cipher_list(old_tls.native_handle(), "ALL:@SECLEVEL=0");
  ::SSL_CTX_set_min_proto_version(old_tls.native_handle(), TLS1_VERSION);
  ::SSL_CTX_set_max_proto_version(old_tls.native_handle(), TLS1_1_VERSION);

  asio::io_context io;
  ScriptedServer good(io, {{ok}}, &good_tls), other(io, {{ok}}, &other_tls);
  ScriptedServer expired(io, {{ok}}, &expired_tls), old(io, {{ok}}, &old_tls);
  ScriptedServer silent(io, {{"", Then::drain, Read::none}}), plain(io, {{"hello\r\n", Then::close, Read::none}});
  // Writing to a connection that the peer has reset raises SIGPIPE where that is
  // not prevented, and ends the process.
  ScriptedServer reset(io, {{"", Then::reset, Read::head}}), tls_reset(io, {{"", Then::reset, Read::head}}, &good_tls);
  tcp::acceptor refusing(io, tcp::v4());  // has its number, and never listens
  refusing.bind({asio::ip::address_v4::loopback(), 0});
  const std::string closed_port = std::to_string(refusing.local_endpoint().port());

  const std::string connection = "APIConnectionError: ", untrusted = connection + "no trusted TLS connection to ";
  const std::string broken = connection + "the connection broke off to localhost",
                    self_signed = "self-signed certificate";
  const std::tuple<std::string, std::string, std::string, std::string, Reason> rows[] = {
      {good.url("localhost"), "good.pem", answer, "", Reason::other},
      {good.url("localhost"), "", untrusted, self_signed, Reason::untrusted_certificate},
      {good.url("localhost"), "other.pem", untrusted, self_signed, Reason::untrusted_certificate},
      {good.url("localhost"), "missing.pem", untrusted, "missing.pem", Reason::no_tls},
      {expired.url("localhost"), "expired.pem", untrusted, "certificate has expired", Reason::expired_certificate},
      {other.url("localhost"), "other.pem", untrusted, "matches target host name 'localhost'", Reason::wrong_host},
      {old.url("localhost"), "old.pem", untrusted, "TLS 1.2 is the oldest version accepted", Reason::old_protocol},
      {plain.url("localhost", "https"), "", untrusted, "wrong version number", Reason::no_tls},
      {silent.url("localhost", "https"), "", "APITimeoutError: timed out connecting to localhost", "",
       Reason::timed_out},
      {reset.url("localhost"), "", broken, "", Reason::broken_off},
      {tls_reset.url("localhost"), "good.pem", broken, "", Reason::broken_off},
      {"http://localhost:" + closed_port, "", connection + "cannot reach localhost:", "refused", Reason::unreachable},
      {"http://missing.test", "", connection + "cannot reach missing.test", "resolve host", Reason::unreachable},
  };
  const MessagesRequest request = make_request(16 << 20);  // more than sockets hold
  for (const auto& [url, trusted, start, words, reason] : rows) {
    const std::chrono::milliseconds limit(reason == Reason::timed_out ? 50 : 100'000);
    auto options = HttpOptions().base_url(url).ca_file(trusted).connect_timeout(limit).allow_plain_http(true);
    HttpMessagesClient client(api_key, std::move(options));
    for (int i = 0; i < 2; ++i) {
      Call call(io, client, request);
      EXPECT_THAT(call.ending(), testing::AllOf(StartsWith(start), HasSubstr(words)));
      EXPECT_EQ(call.reason(), reason) << url;
    }
  }
  ASSERT_EQ(good.requests.size(), 2u);
  EXPECT_TRUE(good.requests[1].body() == request.body());
  EXPECT_EQ(expired.requests.size() + other.requests.size() + old.requests.size(), 0u);
}

}  // namespace
}  // namespace vision
