#include "tools/viewport.hpp"

#include "tools/report/byte_source.hpp"
#include "vision/text/internal/numbers.hpp"

namespace tools {

Viewport parse_viewport(const std::string& text) {
  const std::size_t cross = text.find('x');
  const auto width = vision::text::parse_integer(text.substr(0, cross));
  const auto height = cross == text.npos ? std::nullopt : vision::text::parse_integer(text.substr(cross + 1));
  constexpr std::int64_t largest = 100'000;
  if (!width || !height || *width < 1 || *height < 1 || *width > largest || *height > largest) {
    throw report::InputError("--viewport takes a size like 1280x800, not \"" + text + "\"");
  }
  return {static_cast<int>(*width), static_cast<int>(*height)};
}

}  // namespace tools
