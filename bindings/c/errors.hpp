#pragma once

#include <exception>
#include <string>

#include "bindings/c/vision.h"

namespace vision::c {

/// An error of the host's as an exception, which remembers the token and releases it
/// with the last copy.
std::exception_ptr to_exception(const vision_error& error);

/// An exception as the host gets it.
class ErrorForHost {
 public:
  /// `was_cancelled` says that the caller asked for the end: an abort is then one.
  explicit ErrorForHost(const std::exception_ptr& error, bool was_cancelled = false);
  ErrorForHost(const ErrorForHost&) = delete;
  ErrorForHost& operator=(const ErrorForHost&) = delete;

  /// Valid as long as this lives.
  const vision_error& get() const noexcept { return error_; }
  bool is_cancellation() const noexcept { return (error_.flags & VISION_CANCELLED) != 0; }

 private:
  std::string kind_, message_;
  vision_error error_{};
};

/// What vision_last_error tells on this thread from now on.
void set_last_error(const std::exception_ptr& error);

/// Runs the body of a function that tells of failure by returning false, null or 0.
template <class Body>
auto guarded(Body body) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (...) {
    set_last_error(std::current_exception());
    return {};
  }
}

}  // namespace vision::c
