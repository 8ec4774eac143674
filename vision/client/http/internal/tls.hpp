#pragma once

#include <curl/curl.h>

namespace vision::detail::http {

/// For CURLOPT_SSL_CTX_FUNCTION. On a connection that its server has ended, a write
/// says "not now" instead of failing, so that libcurl reads what the server sent before:
/// the reason why it did not want the rest of the request. The read that finds nothing
/// more reports the end.
CURLcode read_on_after_failed_write(CURL* easy, void* ssl_context, void* unused) noexcept;

}  // namespace vision::detail::http
