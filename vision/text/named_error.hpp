#pragma once

namespace vision {

/// Mixed into error types that carry a stable kind name of their own. Errors
/// without it are named after their class.
class NamedError {
 public:
  virtual ~NamedError() = default;
  /// The kind's name, for example "RateLimitError". Never null.
  virtual const char* kind_name() const noexcept = 0;
};

}  // namespace vision
