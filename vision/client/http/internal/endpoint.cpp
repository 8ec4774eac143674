#include "vision/client/http/internal/endpoint.hpp"

#include <string.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "vision/client/http/internal/live_drivers.hpp"
#include "vision/client/http/internal/loopback.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail::http {
namespace {

struct FreeUrl {
  void operator()(CURLU* url) const noexcept { ::curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, FreeUrl>;

struct BaseUrl {
  std::string source;  // how errors name it
  std::string value;
  std::string shown;  // what errors quote
};

// The URL without what may be secret: credentials, the query (where some gateways have
// theirs) and the key.
std::string shown_form(const std::string& url, const SecretKey& key) {
  if (url.find('@') != std::string::npos) return "";
  const auto host = url.find("://");
  const auto colon = host == std::string::npos ? host : url.find(':', host + 3);
  if (colon != std::string::npos && url.find('[') == std::string::npos &&
      !std::isdigit(static_cast<unsigned char>(url[colon + 1]))) {
    return "";  // "https://user:password", without its host
  }
  const auto end = url.find_first_of("?#");
  return " \"" + key.scrub(text::one_line(url.substr(0, end))) + (end == std::string::npos ? "\"" : "...\"");
}

BaseUrl base_url_of(const HttpOptions& options, const SecretKey& key) {
  BaseUrl base{"base_url", "https://api.anthropic.com", ""};
  if (options.base_url()) {
    base.value = *options.base_url();
  } else if (const char* value = std::getenv("ANTHROPIC_BASE_URL"); value && *value) {
    base = {"ANTHROPIC_BASE_URL", value, ""};
  }
  base.shown = shown_form(base.value, key);
  return base;
}

std::string part(const Url& url, CURLUPart which) {
  char* text = nullptr;
  if (::curl_url_get(url.get(), which, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, decltype(&::curl_free)> owner(text, &::curl_free);
  return text;
}

[[noreturn]] void refuse(const BaseUrl& base, const std::string& why) {
  throw std::invalid_argument(base.source + base.shown + " " + why);
}

Url parse(const BaseUrl& base) {
  Url url(::curl_url());
  if (!url) throw std::bad_alloc();
  const std::string trimmed(text::trim(base.value));
  if (trimmed.empty()) refuse(base, "is empty");
  const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7f; };
  if (std::any_of(trimmed.begin(), trimmed.end(), is_control)) refuse(base, "contains a control character");
  const CURLUcode code = ::curl_url_set(url.get(), CURLUPART_URL, trimmed.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (code != CURLUE_OK) refuse(base, std::string("is not a URL: ") + ::curl_url_strerror(code));
  const std::string scheme = part(url, CURLUPART_SCHEME);
  if (scheme != "https" && scheme != "http") refuse(base, "must begin with https:// or http://");
  // libcurl takes a third slash for a typing error, and the path for the host.
  if (part(url, CURLUPART_HOST).empty() || trimmed.find(":///") != trimmed.npos) refuse(base, "has no host");
  if (!part(url, CURLUPART_USER).empty() || !part(url, CURLUPART_PASSWORD).empty()) {
    refuse(base, "must not contain a user name or a password");
  }
  if (trimmed.find_first_of("?#") != std::string::npos) refuse(base, "must not have a query or a fragment");
  return url;
}

void append_header(std::unique_ptr<curl_slist, FreeHeaders>& headers, const std::string& line) {
  curl_slist* const grown = ::curl_slist_append(headers.get(), line.c_str());
  if (!grown) throw std::bad_alloc();
  (void)headers.release();
  headers.reset(grown);
}

}  // namespace

void FreeHeaders::operator()(curl_slist* list) const noexcept {
  for (auto* line = list; line; line = line->next) ::explicit_bzero(line->data, ::strlen(line->data));
  ::curl_slist_free_all(list);
}

Endpoint::Endpoint(std::string_view api_key, const HttpOptions& options)
    : key(api_key),
      ca_file(options.ca_file()),
      connect_timeout(options.connect_timeout()),
      max_response_bytes(options.max_response_bytes()) {
  initialise_libcurl();
  const BaseUrl base = base_url_of(options, key);
  const Url parsed = parse(base);
  const std::string host = part(parsed, CURLUPART_HOST);
  is_tls = part(parsed, CURLUPART_SCHEME) == "https";
  if (!is_tls) {
    direct = text::is_loopback(host);
    if (!direct && !options.allow_plain_http()) {
      refuse(base,
             "would send the API key unencrypted to another machine; use https, or allow it with "
             "HttpOptions::allow_plain_http");
    }
  }
  const std::string port = part(parsed, CURLUPART_PORT);
  authority = host + (port.empty() ? "" : ":" + port);
  url = text::trim(base.value);
  url.erase(url.find_last_not_of('/') + 1);
  url += "/v1/messages";
  if (connect_timeout.count() <= 0) {
    throw std::invalid_argument("connect_timeout must be positive, not " + std::to_string(connect_timeout.count()) +
                                " ms");
  }
  if (max_response_bytes == 0) throw std::invalid_argument("max_response_bytes must be positive, not 0");

  std::string authentication;
  authentication.reserve(key.reveal().size() + 16);  // growing would leave a copy behind
  authentication.append("x-api-key: ").append(key.reveal());
  append_header(headers, authentication);
  ::explicit_bzero(authentication.data(), authentication.size());
  for (const char* line :
       {"anthropic-version: 2023-06-01", "content-type: application/json", "accept: application/json",
        "accept-encoding: identity", "user-agent: vision/" VISION_VERSION,
        "expect:"}) {  // no "Expect: 100-continue": a server that ignores it costs a second
    append_header(headers, line);
  }
}

void initialise_libcurl() {
  static const CURLcode code = [] {
    const CURLcode outcome = ::curl_global_init(CURL_GLOBAL_DEFAULT);  // OpenSSL registers its exit handler in it
    if (outcome == CURLE_OK) watch_for_exit();
    return outcome;
  }();
  if (code != CURLE_OK)
    throw std::runtime_error(std::string("libcurl cannot be initialised: ") + ::curl_easy_strerror(code));
}

}  // namespace vision::detail::http
