#include "tools/check/picture_cost.hpp"

#include <algorithm>
#include <cmath>

namespace check {
namespace {

std::int64_t tokens_of(std::int64_t width, std::int64_t height) {
  constexpr std::int64_t patch = 28;
  return ((width + patch - 1) / patch) * ((height + patch - 1) / patch);
}

std::int64_t scaled(std::int64_t length, double scale) {
  return std::max<std::int64_t>(1, static_cast<std::int64_t>(std::nearbyint(static_cast<double>(length) * scale)));
}

}  // namespace

SeenPicture seen_picture(std::int64_t width, std::int64_t height, const report::PictureLimits& limits) {
  SeenPicture seen{width, height, tokens_of(width, height), false};
  const std::int64_t longest = std::max(width, height);
  // The largest whole number of pixels of the longer edge with which both limits hold.
  for (std::int64_t edge = std::min(longest, limits.longest_edge); edge > 0 && edge <= longest; --edge) {
    const double scale = static_cast<double>(edge) / static_cast<double>(longest);
    seen.width = scaled(width, scale);
    seen.height = scaled(height, scale);
    seen.tokens = tokens_of(seen.width, seen.height);
    seen.shrunk = edge < longest;
    if (seen.tokens <= limits.tokens) break;
  }
  return seen;
}

}  // namespace check
