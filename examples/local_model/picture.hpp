#pragma once

#include <string>
#include <vector>

namespace local_model {

/// A rectangle in image pixels.
struct Box {
  double left = 0, top = 0, right = 0, bottom = 0;

  double width() const noexcept { return right - left; }
  double height() const noexcept { return bottom - top; }
  double center_x() const noexcept { return (left + right) / 2; }
  double center_y() const noexcept { return (top + bottom) / 2; }
};

/// The smallest rectangle around both.
Box around(const Box& a, const Box& b) noexcept;

/// A word in a picture.
struct Word {
  std::string text;  ///< UTF-8, not empty
  Box box;
  double confidence = 0;  ///< of the reader, 0 to 1
};

/// The content of a screenshot.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<Word> words;
};

/// Words side by side, from left to right, without a gap as wide as between columns.
using TextLine = std::vector<Word>;

/// The words as lines, from top to bottom. Words too close together to have a blank
/// between them are merged.
std::vector<TextLine> text_lines(const Picture& picture);

/// The words with one blank between them.
std::string joined(const TextLine& line);

}  // namespace local_model
