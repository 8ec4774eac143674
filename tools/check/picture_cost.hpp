#pragma once

#include <cstdint>

#include "tools/report/prices.hpp"

namespace check {

/// What a model makes of a picture.
struct SeenPicture {
  std::int64_t width = 0, height = 0;  ///< pixels, after the service has shrunk it
  std::int64_t tokens = 0;
  bool shrunk = false;
};

/// The picture of `width` by `height` pixels, each 1 or more, as a model with these
/// limits sees it: a token for every 28 by 28 pixels that are begun; shrunk, in
/// proportion, to the longest edge and the number of tokens that the model takes.
SeenPicture seen_picture(std::int64_t width, std::int64_t height, const report::PictureLimits& limits);

}  // namespace check
