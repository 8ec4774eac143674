#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "examples/local_model/picture.hpp"

namespace local_model {

/// A place in the picture that reads like the text looked for.
struct Match {
  Box box;
  double confidence = 0;  ///< 0 to 1: how sure the reader was, and how alike the texts are
  TextLine rest;          ///< the words of the same line that follow
};

/// Finds `phrase` among words that stand next to each other. Letter case, blanks
/// and punctuation at the ends do not matter; one wrong letter is forgiven from
/// six letters on, two from twelve. The most alike wins, of equals one that
/// stands alone on its line, of these the first from top to bottom. Absent when
/// nothing is alike, and for a phrase without letters or digits.
std::optional<Match> find_text(const std::vector<TextLine>& lines, std::string_view phrase);

/// The line right below a match and beginning near its left edge. Absent when
/// there is none within four line heights.
std::optional<TextLine> line_below(const std::vector<TextLine>& lines, const Box& box);

/// `text` as it is compared: lower case, without blanks and without the
/// punctuation around it.
std::string comparable(std::string_view text);

/// Fewest insertions, deletions and replacements of bytes that turn a into b.
std::size_t edit_distance(std::string_view a, std::string_view b);

}  // namespace local_model
