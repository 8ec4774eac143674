#include "tools/html/screenshot.hpp"

#include <algorithm>
#include <cmath>

#include "tools/html/page.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/numbers.hpp"

namespace html {
namespace {

struct Size {
  unsigned width, height;
};

// From the header that every PNG begins with; absent for anything else.
std::optional<Size> png_size(std::string_view png) {
  constexpr std::string_view signature("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
  if (!png.starts_with(signature) || png.size() < signature.size() + 8) return std::nullopt;
  const auto number = [&](std::size_t at) {
    unsigned value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(png[at + i]);
    return value;
  };
  const Size size{number(signature.size()), number(signature.size() + 4)};
  if (size.width == 0 || size.height == 0) return std::nullopt;
  return size;
}

std::string percent(const char* property, double ratio) {
  return std::string(property) + ":" + vision::text::fixed(std::clamp(ratio, 0.0, 1.0) * 100, 3) + "%;";
}

std::string drawn(const Marker& marker) {
  if (std::isnan(marker.x_ratio) || std::isnan(marker.y_ratio)) return {};
  return std::string("<span class=\"marker") + (marker.kind == Marker::Kind::actual ? " actual" : "") + "\" style=\"" +
         percent("left", marker.x_ratio) + percent("top", marker.y_ratio) + "\"></span>";
}

std::string drawn(const Area& area) {
  for (const double part : {area.left, area.top, area.width, area.height}) {
    if (std::isnan(part)) return {};
  }
  return "<span class=\"area\" style=\"" + percent("left", area.left) + percent("top", area.top) +
         percent("width", area.width) + percent("height", area.height) + "\"></span>";
}

std::string picture(const Screenshot& shot, const Size& size, const std::string& attributes,
                    const std::string& content) {
  std::string out = "<span class=\"picture\"><svg viewBox=\"0 0 " + std::to_string(size.width) + " " +
                    std::to_string(size.height) + "\" " + attributes + ">" + content + "</svg>";
  if (shot.area) out += drawn(*shot.area);
  for (const auto& marker : shot.markers) out += drawn(marker);
  return out + "</span>";
}

std::string image_id(const Screenshot& shot) {
  return escaped(shot.id) + "-image";
}

std::string thumbnail(const Screenshot& shot) {
  const auto size = png_size(shot.png.view());
  if (!size) return "<span class=\"picture missing\">no screenshot</span>";
  return picture(shot, *size, "aria-hidden=\"true\"", "<use href=\"#" + image_id(shot) + "\"/>");
}

}  // namespace

// An SVG image and not an <img>: a film strip can draw it again by its id, where
// an <img> would need the data a second time.
std::string figure(const Screenshot& shot) {
  const auto size = png_size(shot.png.view());
  if (!size) {
    return std::string("<p class=\"muted\">") +
           (shot.png.empty() ? "There is no screenshot." : "The screenshot is not a PNG image.") + "</p>\n";
  }
  const std::string image = "<image id=\"" + image_id(shot) + "\" width=\"" + std::to_string(size->width) +
                            "\" height=\"" + std::to_string(size->height) + "\" href=\"data:image/png;base64," +
                            vision::_b64(shot.png.view()) + "\"/>";
  std::string out = "<figure id=\"" + escaped(shot.id) + "\">" +
                    picture(shot, *size, "role=\"img\" aria-label=\"" + escaped(shot.description) + "\"", image);
  if (!shot.caption.empty()) out += "<figcaption>" + escaped(shot.caption) + "</figcaption>";
  return out + "</figure>\n";
}

std::string film_strip(std::string_view name, const std::vector<Frame>& frames) {
  if (frames.empty()) return {};
  std::string out = "<nav class=\"film\" aria-label=\"" + escaped(name) + "\"><ol role=\"list\">\n";
  for (const auto& frame : frames) {
    out += "<li><a href=\"#" + escaped(frame.target) + "\">" + thumbnail(frame.shot) + "<span class=\"label\">" +
           escaped(frame.label) + "</span></a></li>\n";
  }
  return out + "</ol></nav>\n";
}

}  // namespace html
