#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>

#include "vision/client/messages_request.hpp"

namespace vision {

/// The model vendor's Messages API, as VisionClient uses it. HttpMessagesClient
/// speaks it over HTTPS; a host derives its own class for a gateway with another
/// protocol or for recorded answers. docs/programs/gateway.cpp is a complete one.
class MessagesClient {
 public:
  virtual ~MessagesClient() = default;

  /// Sends one request and returns the response as a JSON object. `request` stays
  /// valid until the operation has ended; `request.body()` is its JSON text, and
  /// prefix(), image() and suffix() are for transports that stream.
  ///
  /// These members of the response are read; others are ignored:
  ///
  ///     {"content": [{"type": "tool_use", "name": "propose_action",
  ///                   "input": {"action": "click", "x_ratio": 0.5, ...}}],
  ///      "usage": {"input_tokens": 1500, "output_tokens": 200}}
  ///
  /// - `content` is required: an array of blocks, or null for none. The first block
  ///   whose `type` is "tool_use" and whose `name` is "propose_action" is the answer;
  ///   blocks of other types or names are skipped. Without one the call results in a
  ///   declare_failure, "model did not return propose_action tool call".
  /// - `input` is required in that block: an object, with the members that
  ///   ActionResult has: `action`, `reason`, `confidence`, `next_expected_state`,
  ///   `x_ratio`, `y_ratio`, `text`, `key`, `scroll_dy_ratio`, `duration_ms`. All are
  ///   optional (a missing `action` counts as declare_failure, a missing `confidence`
  ///   as 0). Null counts as {}.
  /// - `usage` is optional, and so are its two integers; what is missing counts as 0.
  ///
  /// A value without `content`, or one whose `content`, `input` or `confidence` is of
  /// another kind, makes the call a declare_failure, "unexpected error: ...".
  ///
  /// To fail, throw an error of api_error.hpp: APIConnectionError when no response
  /// came, throw_status_error() for an HTTP status, APIResponseValidationError for a
  /// response that cannot be read. The ask call tries once more after an
  /// APIConnectionError, a RateLimitError or an InternalServerError, so an
  /// implementation does not retry. Any other exception is also allowed, and is not retried.
  ///
  /// When its time limit is over, the ask call cancels the operation: terminal
  /// cancellation must end it at once. A coroutine that waits only for Asio operations
  /// does that by itself, if it lets their operation_aborted propagate.
  virtual boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) = 0;
};

}  // namespace vision
