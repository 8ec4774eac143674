#pragma once

#include <memory>
#include <string>

#include "vision/client/http/http_options.hpp"
#include "vision/client/messages_client.hpp"

namespace vision {

namespace detail::http {
struct Endpoint;
}

/// The Messages API over HTTP/1.1, one request per `create`. It does not retry: the
/// ask call does.
///
/// Connections are kept alive and pooled per execution context: they belong to the
/// context whose coroutine calls `create` and are closed when it is destroyed, requests
/// in flight included. A child that fork() made has connections of its own, and its copies
/// of requests in flight end with an APIConnectionError, once its context was told
/// (notify_fork). From the exit handler on that the first client registers, neither libcurl
/// nor OpenSSL is called: requests still in flight end by cancellation or with their
/// context, which may be destroyed later than OpenSSL cleans up, and new ones fail with an
/// APIConnectionError. The pool grows to the peak number of concurrent requests; once
/// idle, if that peak exceeded 32, all connections are closed. A client may be used
/// from several contexts, and from a context that several threads run. Proxies are
/// taken from the environment (https_proxy, http_proxy, all_proxy, no_proxy). TLS
/// certificates are always verified, and TLS 1.2 is the oldest version; redirects are
/// not followed.
class HttpMessagesClient : public MessagesClient {
 public:
  /// White space around the key is dropped. Throws std::invalid_argument for a key
  /// that is blank or has anything but visible ASCII characters, for a malformed base
  /// URL or one that would send the key unencrypted to another machine, and for a
  /// time-out or size limit that is not positive. The message names the part and
  /// never shows the key. Logs an info line when the key has fewer than 16
  /// characters, and so is not removed from what the endpoint sends (see `create`).
  explicit HttpMessagesClient(std::string api_key, HttpOptions options = HttpOptions());

  /// Streams the request and returns the response's JSON object, allocated from one
  /// monotonic resource it owns. Floating-point numbers are read exactly. The client
  /// may be destroyed meanwhile.
  ///
  /// The request is sent once. When a kept connection ends before anything of a response
  /// came, the request is sent again at once on another one, as long as a part of it had
  /// not left this machine; later that is an APIConnectionError, because the server may
  /// have read the request.
  ///
  /// Throws APITimeoutError when connecting takes too long; APIConnectionError when
  /// no whole response arrives for any other reason, which `reason()` tells;
  /// APIResponseValidationError for a response that is not a JSON object, larger than
  /// max_response_bytes, nested deeper than 64 levels, compressed, or with an object of
  /// more than 256 members; a status error (api_error.hpp) for any status but 2xx.
  /// Waiting for the response has no limit: the ask call has one.
  ///
  /// When the endpoint repeats the API key, "[API key]" takes its place: the whole
  /// key, plain or JSON-escaped, in every string of the value returned and in error
  /// messages; in error messages also the beginning of a key (eight characters or
  /// more) at the end of an excerpt. Keys of fewer than 16 characters are not removed: they
  /// may be ordinary words.
  ///
  /// An answer that the model refused, or that was cut at max_tokens, is a value like
  /// any other: the ask call finds no tool call in it, or an incomplete one. Its
  /// `stop_reason`, unless "tool_use", is logged at debug level.
  ///
  /// Any kind of cancellation that reaches it ends it at once with operation_aborted
  /// and closes the request's connection.
  boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

 private:
  std::shared_ptr<const detail::http::Endpoint> endpoint_;
};

}  // namespace vision
