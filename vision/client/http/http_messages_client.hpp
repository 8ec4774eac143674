#pragma once

#include <memory>
#include <string>

#include "vision/client/http/http_options.hpp"
#include "vision/client/messages_client.hpp"

namespace vision {

namespace detail::http {
struct Endpoint;
}

/// The Messages API over HTTP/1.1, one request per `create`.
///
/// Connections are kept alive and pooled per execution context: they belong to
/// the context whose coroutine calls `create` and are closed when it is
/// destroyed, requests in flight included. As many are kept as requests were in
/// flight at once; when none is in flight and more than 32 were, all are closed.
/// A client may be used from several contexts, and from a context that several
/// threads run. Proxies are taken from the environment (https_proxy, http_proxy,
/// all_proxy, no_proxy). TLS certificates are always verified, and TLS 1.2 is the
/// oldest version; redirects are not followed.
class HttpMessagesClient : public MessagesClient {
 public:
  /// Throws std::invalid_argument for an API key that is empty or holds anything
  /// but visible ASCII characters (white space around it is dropped), for a
  /// malformed base URL or one that would send the key unencrypted to another
  /// machine, and for a time-out or size limit that is not positive.
  explicit HttpMessagesClient(std::string api_key, HttpOptions options = HttpOptions());

  /// Streams the request and gives the response's JSON object, which owns its
  /// memory as one block. The client may be destroyed meanwhile.
  ///
  /// Throws APITimeoutError when connecting takes too long; APIConnectionError
  /// for any other way of getting no whole response, its `reason()` telling
  /// them apart; APIResponseValidationError
  /// for a response that is no JSON object, larger than max_response_bytes,
  /// nested deeper than 64 levels or compressed; a status error
  /// (api_error.hpp) for any status but 2xx.
  ///
  /// Neither a message nor the value given holds the API key, should the endpoint
  /// repeat it: plain, in base64, URL-encoded, in hexadecimal digits or escaped as
  /// in JSON it is replaced by "[API key]" (keys of at least eight characters).
  ///
  /// Cancellation of any kind that reaches it ends it at once with
  /// operation_aborted and closes the request's connection.
  boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

 private:
  std::shared_ptr<const detail::http::Endpoint> endpoint_;
};

}  // namespace vision
