#pragma once

#include <cstdint>

namespace vision {

/// What is known of a screenshot besides its pixels. Ratios in an ActionResult
/// are fractions of `width_css` and `height_css`. A value.
struct ImgMeta {
  /// The metadata of no screenshot, which no operation returns: Asio's completion
  /// tokens need one.
  ImgMeta() = default;
  /// All four members, in their order.
  ImgMeta(std::int64_t width, std::int64_t height, double pixel_ratio, double seconds)
      : width_css(width), height_css(height), dpr(pixel_ratio), captured_at(seconds) {}

  std::int64_t width_css = 0;   ///< viewport width in CSS pixels
  std::int64_t height_css = 0;  ///< viewport height in CSS pixels
  double dpr = 1;               ///< device pixel ratio
  double captured_at = 0;       ///< seconds since the Unix epoch

  /// Equal in every member.
  friend bool operator==(const ImgMeta&, const ImgMeta&) = default;
};

}  // namespace vision
