#pragma once

#include <string>

#include "tools/check/checklist.hpp"
#include "vision/records/bytes.hpp"

namespace check {

/// The viewport that screenshots will have.
struct View {
  int width = 1280, height = 800;  ///< CSS pixels
  double ratio = 1;                ///< pixels per CSS pixel
};

/// Starts the browser, takes a screenshot of an empty page, and looks which scripts its
/// fonts can draw. Returns the screenshot, empty when there is none.
vision::Bytes check_browser(Checklist& list, const std::string& executable, const View& view);

}  // namespace check
