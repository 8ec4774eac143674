#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/http/internal/secret_key.hpp"

namespace vision::detail::http {

struct FreeHeaders {
  void operator()(curl_slist* list) const noexcept;
};

/// What all requests of one client share: the destination and the credentials.
/// Immutable, so that exchanges on several threads can read it.
struct Endpoint {
  /// Throws std::invalid_argument as HttpMessagesClient's constructor does.
  Endpoint(std::string_view api_key, const HttpOptions& options);

  SecretKey key;
  std::string url;        ///< of the messages resource
  std::string authority;  ///< host, and port when one is given: how error texts name it
  bool is_tls = true;
  bool direct = false;  ///< no proxy
  std::string ca_file;  ///< empty: the system's
  std::chrono::milliseconds connect_timeout;
  std::size_t max_response_bytes;
  std::unique_ptr<curl_slist, FreeHeaders> headers;  ///< holds a copy of the key, wiped at the end
};

/// Prepares libcurl for the process, once. Throws std::runtime_error when that fails.
void initialise_libcurl();

}  // namespace vision::detail::http
