#include "vision/client/ask_options.hpp"

#include <cmath>

#include "vision/text/internal/numbers.hpp"

namespace vision {

std::string Seconds::text() const {
  return is_integer_ ? std::to_string(text::truncate(value_)) : text::shortest(value_);
}

AskOptions& AskOptions::timeout_s(Seconds value) & {
  timeout_s_ = std::isfinite(value.value()) ? value : Seconds(DEFAULT_TIMEOUT_S);
  return *this;
}

}  // namespace vision
