#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "examples/local_model/picture.hpp"

namespace local_model {

/// A place in the picture whose text resembles the one searched for.
struct Match {
  Box box;
  double confidence = 0;  ///< 0 to 1: the reader's confidence, lowered by every misread letter
  TextLine rest;          ///< the words of the same line that follow
};

/// Finds `phrase` among adjacent words. Letter case, blanks and punctuation at the
/// ends do not matter; one misread letter is accepted from six letters on, two from
/// twelve. The best match wins; among equals, one that is alone on its line, then
/// the topmost. Absent when nothing matches, and for a phrase without letters or
/// digits.
std::optional<Match> find_text(const std::vector<TextLine>& lines, std::string_view phrase);

/// The next line below a match that begins near its left edge. Absent when there is
/// none within four line heights.
std::optional<TextLine> line_below(const std::vector<TextLine>& lines, const Box& box);

/// The form of `text` that is compared: lower case, without blanks and surrounding
/// punctuation.
std::string comparable(std::string_view text);

/// The fewest insertions, deletions and replacements of bytes that turn a into b.
std::size_t edit_distance(std::string_view a, std::string_view b);

}  // namespace local_model
