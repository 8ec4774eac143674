#include "examples/local_model/picture.hpp"

#include <algorithm>

namespace local_model {
namespace {

bool same_row(const Box& a, const Box& b) {
  const double overlap = std::min(a.bottom, b.bottom) - std::max(a.top, b.top);
  return overlap > 0.5 * std::min(a.height(), b.height());
}

// The reader sees blanks that are not there. A real blank is at least a third as wide
// as its neighbours are high; the gap between letters of a word is a fifth. Two parts
// of very different height are not one word but a word beside an icon.
bool is_split(const Box& left, const Box& right) {
  const auto [low, high] = std::minmax({left.height(), right.height()});
  return right.left - left.right < 0.27 * high && high < 1.8 * low;
}

void append(Word& word, const Word& more) {
  word.text += more.text;
  word.box = around(word.box, more.box);
  word.confidence = std::min(word.confidence, more.confidence);
}

}  // namespace

Box around(const Box& a, const Box& b) noexcept {
  return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right), std::max(a.bottom, b.bottom)};
}

std::vector<TextLine> text_lines(const Picture& picture) {
  std::vector<Word> words = picture.words;
  std::stable_sort(words.begin(), words.end(), [](const Word& a, const Word& b) { return a.box.left < b.box.left; });
  std::vector<TextLine> lines;
  for (auto& word : words) {
    const auto home = std::find_if(lines.begin(), lines.end(), [&word](const TextLine& line) {
      const Box& last = line.back().box;
      const double gap = word.box.left - last.right;
      return same_row(last, word.box) && gap < 1.3 * std::max(last.height(), word.box.height());
    });
    if (home == lines.end()) {
      lines.push_back({std::move(word)});
    } else if (is_split(home->back().box, word.box)) {
      append(home->back(), word);
    } else {
      home->push_back(std::move(word));
    }
  }
  std::stable_sort(lines.begin(), lines.end(),
                   [](const TextLine& a, const TextLine& b) { return a.front().box.top < b.front().box.top; });
  return lines;
}

std::string joined(const TextLine& line) {
  std::string text;
  for (const auto& word : line) text += (text.empty() ? "" : " ") + word.text;
  return text;
}

}  // namespace local_model
