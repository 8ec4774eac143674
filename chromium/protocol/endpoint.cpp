#include "chromium/protocol/endpoint.hpp"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/json/parse.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "chromium/errors.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;

namespace {

[[noreturn]] void refuse(std::string_view url, const char* why) {
  throw std::invalid_argument("browser URL \"" + text::one_line(url) + "\": " + why);
}

bool is_port(const std::string& port) {
  return !port.empty() && port.size() <= 5 &&
         std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }) && std::stoi(port) > 0 &&
         std::stoi(port) < 65536;
}

// Into a request go only characters that can neither end a line nor part a word.
bool can_be_sent(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

std::string Endpoint::authority() const {
  return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + port;
}

Endpoint parse_endpoint(std::string_view url) {
  Endpoint out;
  const auto scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) refuse(url, "expected http://host:port or ws://host:port/path");
  out.scheme = url.substr(0, scheme_end);
  if (out.scheme != "http" && out.scheme != "ws") refuse(url, "only http and ws are supported");
  const std::string_view rest = url.substr(scheme_end + 3);
  const auto path_start = std::min(rest.find('/'), rest.size());
  const std::string_view authority = rest.substr(0, path_start);
  out.path = path_start < rest.size() ? std::string(rest.substr(path_start)) : "/";
  if (!can_be_sent(out.path)) refuse(url, "the path has a character that a URL cannot have");
  const auto colon = authority.rfind(':');
  if (colon == std::string_view::npos) refuse(url, "no port given");
  out.host = authority.substr(0, colon);
  out.port = authority.substr(colon + 1);
  if (out.host.size() > 2 && out.host.front() == '[' && out.host.back() == ']') {
    out.host = out.host.substr(1, out.host.size() - 2);
  }
  if (out.host.empty()) refuse(url, "no host given");
  if (!can_be_sent(out.host) || out.host.find_first_of("[]@?#\\") != std::string::npos) {
    refuse(url, "the host has a character that a host's name cannot have");
  }
  if (!is_port(out.port)) refuse(url, "the port is not a number from 1 to 65535");
  if (out.scheme == "ws" && !out.path.starts_with("/devtools/browser")) {
    refuse(url, "not the browser's own URL (ws://host:port/devtools/browser/...); a page is reached with attach()");
  }
  return out;
}

asio::awaitable<tcp::socket> open_socket(const Endpoint& endpoint) {
  const auto executor = co_await asio::this_coro::executor;
  std::vector<tcp::endpoint> candidates;
  const auto port = static_cast<unsigned short>(std::stoi(endpoint.port));
  boost::system::error_code error;
  const auto address = asio::ip::make_address(endpoint.host, error);
  if (!error) {
    candidates.emplace_back(address, port);
  } else if (endpoint.host == "localhost") {  // by definition, without asking a resolver
    candidates.emplace_back(asio::ip::address_v4::loopback(), port);
    candidates.emplace_back(asio::ip::address_v6::loopback(), port);
  } else {
    tcp::resolver resolver(executor);
    const auto found = co_await resolver.async_resolve(endpoint.host, endpoint.port, asio::use_awaitable);
    for (const auto& entry : found) candidates.push_back(entry.endpoint());
  }
  tcp::socket socket(executor);
  co_await asio::async_connect(socket, candidates, asio::use_awaitable);
  socket.set_option(tcp::no_delay(true));
  co_return std::move(socket);
}

asio::awaitable<Endpoint> find_browser(Endpoint endpoint) {
  if (endpoint.scheme == "ws") co_return endpoint;
  tcp::socket socket = co_await open_socket(endpoint);
  http::request<http::empty_body> request(http::verb::get, "/json/version", 11);
  request.set(http::field::host, endpoint.authority());
  request.set(http::field::connection, "close");
  co_await http::async_write(socket, request, asio::use_awaitable);
  boost::beast::flat_buffer buffer;
  http::response<http::string_body> response;
  co_await http::async_read(socket, buffer, response, asio::use_awaitable);
  const std::string where = "http://" + endpoint.authority() + "/json/version";
  if (response.result() != http::status::ok) {
    throw BrowserError(where + " answered status " + std::to_string(response.result_int()) +
                       ", not a browser's answer");
  }
  boost::system::error_code error;
  const boost::json::value body = boost::json::parse(response.body(), error);
  const auto* object = error ? nullptr : body.if_object();
  const auto* url = object ? object->if_contains("webSocketDebuggerUrl") : nullptr;
  if (!url || !url->is_string()) throw BrowserError(where + " did not tell a webSocketDebuggerUrl");
  // Its host and port are an echo of the Host header, and wrong behind a forwarded port.
  const std::string_view text = url->get_string();
  const auto path = text.find("/devtools/");
  if (path == std::string_view::npos || !can_be_sent(text.substr(path)))
    throw BrowserError(where + " told an unusable webSocketDebuggerUrl");
  endpoint.scheme = "ws";
  endpoint.path = text.substr(path);
  co_return endpoint;
}

}  // namespace vision::chromium
