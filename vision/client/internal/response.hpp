#pragma once

#include <boost/json/value.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "vision/records/action_result.hpp"
#include "vision/records/img_meta.hpp"
#include "vision/text/named_error.hpp"

namespace vision {

/// A model's answer that lacks what every answer has. Never leaves the ask call,
/// which makes a declare_failure result of it.
class InvalidResponse : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "InvalidResponse"; }
};

/// Turns a Messages API response into a result: the first propose_action call
/// in its content, or a failure result when there is none. `model` and
/// `latency_ms` are copied into it; with `img_meta` raw pixel coordinates are
/// recognised.
///
/// Throws InvalidResponse when `content` is missing or not a list, or the call's
/// `input` missing or not a map, and ConversionError when the confidence is not a
/// number.
ActionResult _parse_response(const boost::json::value& response, const std::string& model, double latency_ms,
                             const std::optional<ImgMeta>& img_meta = std::nullopt);

/// The uniform result of a call that failed: declare_failure with confidence 0
/// and low_confidence false.
ActionResult _failure_result(Cause cause, std::string reason, const std::string& model, double latency_ms,
                             std::int64_t in_tok = 0, std::int64_t out_tok = 0);

}  // namespace vision
