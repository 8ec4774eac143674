#pragma once

#include <string>

namespace tools {

/// A size in CSS pixels.
struct Viewport {
  int width = 1280, height = 800;
};

/// Reads "1280x800". Throws report::InputError for anything else and for sides outside
/// 1 to 100,000.
Viewport parse_viewport(const std::string& text);

}  // namespace tools
