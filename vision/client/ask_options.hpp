#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "vision/settings/settings.hpp"

namespace vision {

/// A number of seconds that remembers whether it was given as an integer or as a
/// floating-point number, because messages show it as it was given (8 or 20.0).
class Seconds {
 public:
  /// Seconds given as an integer, shown without a point: 8. Implicit, so that a
  /// plain number can be passed; a bool does not compile.
  template <std::integral T>
  requires(!std::same_as<T, bool>) Seconds(T value) : value_(static_cast<double>(value)), is_integer_(true) {}
  /// Seconds given as a floating-point number, shown with a point: 20.0.
  template <std::floating_point T>
  Seconds(T value) : value_(static_cast<double>(value)), is_integer_(false) {}

  /// The number of seconds.
  double value() const noexcept { return value_; }
  /// The number as messages show it.
  std::string text() const;

 private:
  double value_;
  bool is_integer_;
};

/// The optional parameters of VisionClient::ask and VisionClient::act. Setters
/// chain: `AskOptions().prompt("Open the dialog").timeout_s(8)`.
class AskOptions {
 public:
  AskOptions() {}

  /// Task text instead of the default task line. Not set or empty: the default.
  AskOptions& prompt(std::optional<std::string> value) & {
    prompt_ = std::move(value);
    return *this;
  }
  /// Forces the heavy model. Default false.
  AskOptions& high_stakes(bool value) & {
    high_stakes_ = value;
    return *this;
  }
  /// Time-out of each attempt in seconds. Default DEFAULT_TIMEOUT_S, which also
  /// replaces a NaN or an infinity. At zero or below the attempt times out as
  /// soon as it waits.
  AskOptions& timeout_s(Seconds value) &;
  /// Whether to retry once after a transport error. Default true; `act` always
  /// retries.
  AskOptions& transport_retry(bool value) & {
    transport_retry_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  AskOptions prompt(std::optional<std::string> value) && { return std::move(prompt(std::move(value))); }
  AskOptions high_stakes(bool value) && { return std::move(high_stakes(value)); }
  AskOptions timeout_s(Seconds value) && { return std::move(timeout_s(value)); }
  AskOptions transport_retry(bool value) && { return std::move(transport_retry(value)); }
  ///@}

  ///@{
  /// The value that was set, or its default.
  const std::optional<std::string>& prompt() const noexcept { return prompt_; }
  bool high_stakes() const noexcept { return high_stakes_; }
  const Seconds& timeout_s() const noexcept { return timeout_s_; }
  bool transport_retry() const noexcept { return transport_retry_; }
  ///@}

 private:
  std::optional<std::string> prompt_;
  bool high_stakes_ = false;
  Seconds timeout_s_ = DEFAULT_TIMEOUT_S;
  bool transport_retry_ = true;
};

}  // namespace vision
