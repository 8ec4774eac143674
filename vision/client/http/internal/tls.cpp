#include "vision/client/http/internal/tls.hpp"

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <cerrno>

namespace vision::detail::http {
namespace {

// Once: what the server sent is read before libcurl writes again.
long after_write(BIO* bio, int operation, const char*, size_t, int, long, int result, size_t*) noexcept {
  const bool is_over = errno == EPIPE || errno == ECONNRESET;
  if (operation == (BIO_CB_WRITE | BIO_CB_RETURN) && result < 0 && is_over) {
    BIO_set_retry_write(bio);
    BIO_set_callback_ex(bio, nullptr);
  }
  return result;
}

void on_tls_state(const SSL* connection, int state, int) noexcept {
  if (state & SSL_CB_HANDSHAKE_DONE) BIO_set_callback_ex(::SSL_get_wbio(connection), after_write);
}

}  // namespace

CURLcode read_on_after_failed_write(CURL*, void* ssl_context, void*) noexcept {
  ::SSL_CTX_set_info_callback(static_cast<SSL_CTX*>(ssl_context), on_tls_state);
  return CURLE_OK;
}

}  // namespace vision::detail::http
