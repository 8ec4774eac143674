#pragma once

#include "vision/testing/running.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::test {

/// A running operation whose error can be had as text.
template <class T>
class Watched : public Running<T> {
 public:
  using Running<T>::Running;
  /// Waits for the end; returns "Kind: message" of the error, or "no error".
  std::string error() {
    const auto error = this->wait();
    return error ? text::full_exception_text(error) : "no error";
  }
};

}  // namespace vision::test
