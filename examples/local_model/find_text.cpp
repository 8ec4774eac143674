#include "examples/local_model/find_text.hpp"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace local_model {
namespace {

bool is_word_byte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 || std::isalnum(byte) != 0;
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
    const std::size_t distance = edit_distance(comparable(text), wanted);
    if (distance > tolerance) continue;
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
  while (!text.empty() && !is_word_byte(text.front())) text.remove_prefix(1);
  while (!text.empty() && !is_word_byte(text.back())) text.remove_suffix(1);
  std::string out;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) != 0) continue;
    out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
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
