#include "tools/check/transfer.hpp"

#include <cstring>
#include <memory>
#include <new>
#include <system_error>

#include "vision/client/http/internal/endpoint.hpp"
#include "vision/client/http/internal/proxy.hpp"
#include "vision/text/internal/utf8.hpp"

namespace check {
namespace {

// Host and port of a proxy's URL, whose other parts may be secret.
std::string without_credentials(const std::string& url) {
  const std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)> parsed(::curl_url(), &::curl_url_cleanup);
  if (!parsed || ::curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_GUESS_SCHEME) != CURLUE_OK) {
    return "(not a URL)";
  }
  std::string out;
  for (const CURLUPart which : {CURLUPART_HOST, CURLUPART_PORT}) {
    char* part = nullptr;
    if (::curl_url_get(parsed.get(), which, &part, 0) != CURLUE_OK) continue;
    out += (which == CURLUPART_PORT ? ":" : "") + std::string(part);
    ::curl_free(part);
  }
  return out;
}

}  // namespace

Transfer::Transfer(const Endpoint& endpoint) : endpoint_(endpoint), easy_(::curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
  ::curl_easy_setopt(easy_, CURLOPT_URL, endpoint.url.c_str());
  ::curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
  ::curl_easy_setopt(easy_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  ::curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(endpoint.connect_timeout.count()));
  ::curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  ::curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, error_text_);
  ::curl_easy_setopt(easy_, CURLOPT_VERBOSE, 1L);
  ::curl_easy_setopt(easy_, CURLOPT_DEBUGFUNCTION, &Transfer::on_debug);
  ::curl_easy_setopt(easy_, CURLOPT_DEBUGDATA, this);
  ::curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &Transfer::on_body);
  ::curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
  if (endpoint.direct) ::curl_easy_setopt(easy_, CURLOPT_NOPROXY, "*");
  if (!endpoint.ca_file.empty()) {
    ::curl_easy_setopt(easy_, CURLOPT_CAINFO, endpoint.ca_file.c_str());
    ::curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);
  }
}

Transfer::~Transfer() {
  ::curl_easy_cleanup(easy_);
}

CURLcode Transfer::connect() {
  ::curl_easy_setopt(easy_, CURLOPT_CONNECT_ONLY, 1L);
  return ::curl_easy_perform(easy_);
}

CURLcode Transfer::post(const std::string& url, const std::string& body) {
  constexpr long limit_ms = 30'000;
  ::curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
  ::curl_easy_setopt(easy_, CURLOPT_TIMEOUT_MS, limit_ms);
  ::curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, endpoint_.headers.get());
  ::curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body.c_str());
  ::curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  return ::curl_easy_perform(easy_);
}

std::string Transfer::address() const {
  char* text = nullptr;
  ::curl_easy_getinfo(easy_, CURLINFO_PRIMARY_IP, &text);
  return text ? text : "";
}

// Of a proxy's URL that it cannot parse, libcurl quotes the password too.
std::string Transfer::error(CURLcode code) const {
  const std::string fault = proxy_variable_.empty() ? "" : vision::detail::http::proxy_fault(endpoint_.is_tls);
  if (!fault.empty()) return fault;
  std::string out = vision::text::one_line(error_text_[0] ? error_text_ : ::curl_easy_strerror(code));
  const long system_error = code == CURLE_COULDNT_CONNECT ? number(CURLINFO_OS_ERRNO) : 0;
  if (system_error != 0) out += " (" + std::system_category().message(static_cast<int>(system_error)) + ")";
  return endpoint_.key.scrub_excerpt(out);
}

long Transfer::number(CURLINFO which) const {
  long value = 0;
  ::curl_easy_getinfo(easy_, which, &value);
  return value;
}

double Transfer::milliseconds(CURLINFO which) const {
  curl_off_t microseconds = 0;
  ::curl_easy_getinfo(easy_, which, &microseconds);
  return static_cast<double>(microseconds) / 1e3;
}

// libcurl 7.88 tells in words only which variable it took the proxy from.
int Transfer::on_debug(CURL*, curl_infotype type, char* data, std::size_t size, void* self) noexcept {
  constexpr std::string_view start = "Uses proxy env variable ", middle = " == '";
  const std::string_view line(data, size);
  const std::size_t name_end = line.find(middle), last = line.rfind('\'');
  if (type != CURLINFO_TEXT || !line.starts_with(start) || name_end == line.npos) return 0;
  auto& transfer = *static_cast<Transfer*>(self);
  const std::string name(line.substr(start.size(), name_end - start.size()));
  const std::size_t value = name_end + middle.size();
  if (name == "no_proxy" || name == "NO_PROXY" || last < value) return 0;
  transfer.proxy_variable_ = name;
  transfer.proxy_ = without_credentials(std::string(line.substr(value, last - value)));
  return 0;
}

std::size_t Transfer::on_body(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  auto& transfer = *static_cast<Transfer*>(self);
  if (size * count > transfer.endpoint_.max_response_bytes - transfer.body_.size()) return 0;
  transfer.body_.append(data, size * count);
  return size * count;
}

}  // namespace check
