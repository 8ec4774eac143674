#include "examples/local_model/find_text.hpp"

#include <algorithm>
#include <cctype>
#include <numeric>

#include "vision/text/internal/utf8.hpp"

namespace local_model {
namespace {

bool is_blank(char32_t c) {
  return c == U' ' || (c >= 0x09 && c <= 0x0d) || c == 0xa0;
}

bool is_punctuation(char c) {
  return std::ispunct(static_cast<unsigned char>(c)) != 0;
}

struct Candidate {
  Match match;
  double likeness = 0;
  bool alone = false;

  bool better_than(const Candidate& other) const {
    if (likeness != other.likeness) return likeness > other.likeness;
    return alone && !other.alone;
  }
};

// The best run of words that begins at `first`, by likeness.
std::optional<Candidate> best_run(const TextLine& line, std::size_t first, const std::string& wanted) {
  const std::size_t tolerance = std::min<std::size_t>(wanted.size() / 6, 2);
  std::optional<Candidate> best;
  std::string text;
  Box box = line[first].box;
  double sureness = 0;
  for (std::size_t last = first; last < line.size() && text.size() <= wanted.size() + tolerance; ++last) {
    text += line[last].text;
    box = around(box, line[last].box);
    sureness += line[last].confidence;
    const std::string read = comparable(text);
    const std::size_t distance = edit_distance(read, wanted);
    // A misread letter may become two or vanish; a missing word is another text.
    const std::size_t lengths_apart = std::max(read.size(), wanted.size()) - std::min(read.size(), wanted.size());
    if (distance > tolerance || lengths_apart > 1) continue;
    Candidate candidate;
    candidate.likeness = 1.0 - static_cast<double>(distance) / static_cast<double>(wanted.size());
    candidate.alone = first == 0 && last + 1 == line.size();
    candidate.match.box = box;
    const double mean = sureness / static_cast<double>(last - first + 1);
    candidate.match.confidence = candidate.likeness * (0.3 + 0.7 * mean);
    candidate.match.rest.assign(line.begin() + static_cast<std::ptrdiff_t>(last) + 1, line.end());
    if (!best || candidate.likeness > best->likeness) best = std::move(candidate);
  }
  return best;
}

}  // namespace

std::string comparable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto c = vision::text::next_code_point(text);
    text.remove_prefix(c.size);
    const bool typographic = c.value >= 0x2000 && c.value <= 0x206f;  // dashes, curly quotation marks, odd blanks
    if (typographic || is_blank(c.value)) continue;
    if (c.value < 0x80) {
      out += static_cast<char>(std::tolower(static_cast<int>(c.value)));
    } else {
      vision::text::append_utf8(out, c.value);
    }
  }
  while (!out.empty() && is_punctuation(out.back())) out.pop_back();
  out.erase(out.begin(), std::find_if_not(out.begin(), out.end(), is_punctuation));
  return out;
}

std::size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

std::optional<Match> find_text(const std::vector<TextLine>& lines, std::string_view phrase) {
  const std::string wanted = comparable(phrase);
  if (wanted.empty()) return std::nullopt;
  std::optional<Candidate> best;
  for (const auto& line : lines) {
    for (std::size_t first = 0; first < line.size(); ++first) {
      auto candidate = best_run(line, first, wanted);
      if (candidate && (!best || candidate->better_than(*best))) best = std::move(candidate);
    }
  }
  if (!best) return std::nullopt;
  return std::move(best->match);
}

std::optional<TextLine> line_below(const std::vector<TextLine>& lines, const Box& box) {
  const TextLine* found = nullptr;
  for (const auto& line : lines) {
    const Box& start = line.front().box;
    const bool below = start.center_y() > box.bottom && start.top < box.bottom + 4 * box.height();
    const bool near_edge = start.left > box.left - 2 * box.height() && start.left < box.right + box.height();
    if (below && near_edge && (found == nullptr || start.top < found->front().box.top)) found = &line;
  }
  if (found == nullptr) return std::nullopt;
  return *found;
}

}  // namespace local_model
