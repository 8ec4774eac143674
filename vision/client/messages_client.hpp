#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>

#include "vision/client/messages_request.hpp"

namespace vision {

/// The model vendor's Messages API, as VisionClient uses it. HttpMessagesClient
/// speaks it over HTTPS; a host implements it for a gateway or a recorded
/// session.
class MessagesClient {
 public:
  virtual ~MessagesClient() = default;

  /// Sends one request and returns the response's JSON object. `request` stays
  /// valid until the operation has ended.
  ///
  /// Fails with an APIError (api_error.hpp) or any other exception; of these,
  /// APIConnectionError, RateLimitError and InternalServerError make the ask
  /// call try once more, so an implementation does not retry by itself. Terminal
  /// cancellation must end it at once.
  virtual boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) = 0;
};

}  // namespace vision
