#include "vision/client/http/internal/proxy.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

namespace vision::detail::http {
namespace {

// As libcurl looks for it; http_proxy counts in lower case only.
const char* proxy_variable(bool is_tls) {
  static constexpr std::array<const char*, 4> for_tls = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
  static constexpr std::array<const char*, 3> for_plain = {"http_proxy", "all_proxy", "ALL_PROXY"};
  const auto names = is_tls ? std::span<const char* const>(for_tls) : std::span<const char* const>(for_plain);
  for (const char* const name : names) {
    if (const char* const value = std::getenv(name); value && *value) return name;
  }
  return nullptr;
}

const char* fault_of(const std::string& url) {
  constexpr std::array<std::string_view, 6> schemes = {"http", "https", "socks4", "socks4a", "socks5", "socks5h"};
  const auto scheme_end = url.find("://");
  const std::string_view scheme = scheme_end == url.npos ? "http" : std::string_view(url).substr(0, scheme_end);
  if (std::find(schemes.begin(), schemes.end(), scheme) == schemes.end()) {
    return "begins with none of http://, https://, socks4://, socks4a://, socks5://, socks5h://";
  }
  const auto credentials_begin = scheme_end == url.npos ? 0 : scheme_end + 3;
  const auto credentials_end = url.rfind('@');
  if (credentials_end != url.npos && url.find_first_of("/?#\\ ", credentials_begin) < credentials_end) {
    return "has a character in its user name or password that must be percent-encoded";
  }
  const std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)> parsed(::curl_url(), &::curl_url_cleanup);
  constexpr unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME;
  return parsed && ::curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), flags) == CURLUE_OK ? nullptr
                                                                                                : "is not a URL";
}

}  // namespace

std::string proxy_fault(bool is_tls) {
  const char* const variable = proxy_variable(is_tls);
  const char* const fault = variable ? fault_of(std::getenv(variable)) : nullptr;
  return fault ? std::string("the proxy in ") + variable + " " + fault : std::string();
}

}  // namespace vision::detail::http
