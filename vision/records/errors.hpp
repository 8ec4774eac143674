#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "vision/text/named_error.hpp"

namespace vision {

/// The client's call budget for this run is spent: stop using vision until the
/// metrics are reset, and hand over to the computer-use agent.
class BudgetExceeded : public std::runtime_error, public NamedError {
 public:
  /// `budget` is the number of calls that was allowed.
  explicit BudgetExceeded(std::int64_t budget)
      : std::runtime_error("Vision call budget " + std::to_string(budget) + " exceeded — escalate to CUA") {}
  const char* kind_name() const noexcept override { return "BudgetExceeded"; }
};

/// A loosely typed value that cannot be converted to the required type: "attempts" in a
/// flow context, a page's viewport size, a number in a model's answer.
class ConversionError : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "ConversionError"; }
};

}  // namespace vision
