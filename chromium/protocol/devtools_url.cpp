#include "chromium/protocol/devtools_url.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/json/parse.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "chromium/errors.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/untracked.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;

namespace {

// Without what may be secret: credentials, and the query, where some services have theirs.
[[noreturn]] void refuse(std::string_view url, const char* why) {
  url = url.find('@') == url.npos ? url.substr(0, url.find_first_of("?#")) : "...";
  throw std::invalid_argument("browser URL \"" + text::one_line(url) + "\": " + why);
}

bool is_port(const std::string& port) {
  return !port.empty() && port.size() <= 5 &&
         std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }) && std::stoi(port) > 0 &&
         std::stoi(port) < 65536;
}

// A character outside this range could end a line of the request or split it.
bool can_be_sent(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

void open(Unshared<tcp::socket>& socket, const tcp& protocol) {
  const NoFork lock;
  const int descriptor = ::socket(protocol.family(), protocol.type() | SOCK_CLOEXEC, protocol.protocol());
  if (descriptor < 0) throw boost::system::system_error(errno, boost::system::system_category());
  socket.assign(lock, protocol, descriptor);
}

}  // namespace

std::string DevToolsUrl::authority() const {
  return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + port;
}

DevToolsUrl parse_devtools_url(std::string_view url) {
  DevToolsUrl out;
  const auto scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) refuse(url, "expected http://host:port or ws://host:port/path");
  out.scheme = url.substr(0, scheme_end);
  if (out.scheme != "http" && out.scheme != "ws") refuse(url, "only http and ws are supported");
  const std::string_view rest = url.substr(scheme_end + 3);
  const auto path_start = std::min(rest.find('/'), rest.size());
  const std::string_view authority = rest.substr(0, path_start);
  out.path = path_start < rest.size() ? std::string(rest.substr(path_start)) : "/";
  if (!can_be_sent(out.path)) refuse(url, "the path contains a character that is not allowed in a URL");
  const auto colon = authority.rfind(':');
  if (colon == std::string_view::npos) refuse(url, "the port is missing");
  out.host = authority.substr(0, colon);
  out.port = authority.substr(colon + 1);
  if (out.host.size() > 2 && out.host.front() == '[' && out.host.back() == ']') {
    out.host = out.host.substr(1, out.host.size() - 2);
  }
  if (out.host.empty()) refuse(url, "the host is missing");
  if (!can_be_sent(out.host) || out.host.find_first_of("[]@?#\\") != std::string::npos) {
    refuse(url, "the host contains a character that is not allowed in a host name");
  }
  if (!is_port(out.port)) refuse(url, "the port is not a number from 1 to 65535");
  if (out.scheme == "ws" && !out.path.starts_with("/devtools/browser")) {
    refuse(url, "not the browser's own URL (ws://host:port/devtools/browser/...); use attach() to reach a page");
  }
  return out;
}

// Asio's own connecting over several addresses makes sockets that are inherited.
asio::awaitable<Unshared<tcp::socket>> open_socket(const DevToolsUrl& url) {
  const auto executor = co_await asio::this_coro::executor;
  std::vector<tcp::endpoint> candidates;
  const auto port = static_cast<unsigned short>(std::stoi(url.port));
  boost::system::error_code error;
  const auto address = asio::ip::make_address(url.host, error);
  if (!error) {
    candidates.emplace_back(address, port);
  } else if (url.host == "localhost") {  // a resolver could be told that it is another machine
    candidates.emplace_back(asio::ip::address_v4::loopback(), port);
    candidates.emplace_back(asio::ip::address_v6::loopback(), port);
  } else {
    tcp::resolver resolver(executor);
    const auto found = co_await resolver.async_resolve(url.host, url.port, asio::use_awaitable);
    for (const auto& entry : found) candidates.push_back(entry.endpoint());
  }
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    Unshared<tcp::socket> socket(untracked(executor));
    open(socket, candidates[i].protocol());
    co_await socket.async_connect(candidates[i], asio::redirect_error(asio::use_awaitable, error));
    if (error && i + 1 < candidates.size() && error != asio::error::operation_aborted) continue;
    if (error) throw boost::system::system_error(error);
    socket.set_option(tcp::no_delay(true));  // commands are small, and each waits for its reply
    co_return std::move(socket);
  }
  throw boost::system::system_error(asio::error::host_not_found);
}

asio::awaitable<DevToolsUrl> discover_browser(DevToolsUrl url) {
  if (url.scheme == "ws") co_return url;
  Unshared<tcp::socket> socket = co_await open_socket(url);
  http::request<http::empty_body> request(http::verb::get, "/json/version", 11);
  request.set(http::field::host, url.authority());
  request.set(http::field::connection, "close");
  co_await http::async_write(socket, request, asio::use_awaitable);
  boost::beast::flat_buffer buffer;
  http::response<http::string_body> response;
  co_await http::async_read(socket, buffer, response, asio::use_awaitable);
  const std::string where = "http://" + url.authority() + "/json/version";
  if (response.result() != http::status::ok) {
    throw BrowserError(where + " returned status " + std::to_string(response.result_int()) +
                       "; is that a browser's debugging port?");
  }
  boost::system::error_code error;
  const boost::json::value body = boost::json::parse(response.body(), error);
  const auto* object = error ? nullptr : body.if_object();
  const std::string_view reported = object ? text_of(*object, "webSocketDebuggerUrl") : std::string_view();
  // Only its path counts: host and port echo our Host header, and are wrong behind a
  // forwarded port.
  const auto path = reported.find("/devtools/");
  if (path == std::string_view::npos || !can_be_sent(reported.substr(path))) {
    throw BrowserError(where + " returned no usable webSocketDebuggerUrl");
  }
  url.scheme = "ws";
  url.path = reported.substr(path);
  co_return url;
}

}  // namespace vision::chromium
