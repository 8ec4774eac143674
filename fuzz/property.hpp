#pragma once

#include <cstdio>
#include <cstdlib>

namespace vision::fuzz {

/// Ends the program when a property does not hold, so that libFuzzer keeps the
/// input.
inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

}  // namespace vision::fuzz
