#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vision/records/bytes.hpp"

namespace html {

/// A point in a picture, in fractions of its width and height from the top left
/// corner. Values outside of 0 to 1 are drawn at the edge, NaN not at all.
struct Marker {
  enum class Kind {
    proposed,  ///< a ring: where the model points
    actual,    ///< a square: where the action really went
  };

  double x_ratio = 0;
  double y_ratio = 0;
  Kind kind = Kind::proposed;
};

/// A rectangle in a picture, in the same fractions.
struct Area {
  double left = 0, top = 0, width = 0, height = 0;
};

/// A screenshot with what is drawn over it. Colour and shape tell the marks
/// apart; the texts must say what they mean for readers who do not see them.
struct Screenshot {
  std::string id;           ///< unique on the page: letters, digits and hyphens
  vision::Bytes png;        ///< empty when no screenshot was taken
  std::string description;  ///< what a reader who does not see the picture is told
  std::string caption;      ///< below the picture; may be empty
  std::vector<Marker> markers;
  std::optional<Area> area;
};

/// The screenshot at the width of the page. Without a PNG it is a line that says so.
std::string figure(const Screenshot& shot);

/// One picture of a film strip.
struct Frame {
  Screenshot shot;     ///< its figure must be on the same page: the strip draws that picture again
  std::string label;   ///< the link's text
  std::string target;  ///< id of the element that the link leads to
};

/// Small pictures in a row, each a link to a place further down on the page.
/// `name` tells assistive technology what the row is. Empty without frames.
std::string film_strip(std::string_view name, const std::vector<Frame>& frames);

}  // namespace html
