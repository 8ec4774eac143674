// Texts are cut between the code points that an independent decoder sees, and what
// enters a log line can neither end it nor control a terminal.
#include "fuzz/input.hpp"

namespace vision::fuzz {
namespace {

std::string harmless(std::uint32_t c) {
  if (c == '\n') return "\\n";
  if (c == '\r') return "\\r";
  if (c == '\t') return "\\t";
  if (!(c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029)) return reference_encode(c);
  char out[8];
  std::snprintf(out, sizeof out, "\\u%04x", c);
  return out;
}

}  // namespace

void check(Input input) {
  const std::size_t count = input.number<std::uint8_t>();
  const std::string_view text = input;
  std::size_t steps = 0, cut = 0;
  std::string line;
  for (std::size_t at = 0; at < text.size(); ++steps) {
    const text::CodePoint expected = reference_step(text.substr(at));
    const text::CodePoint found = text::next_code_point(text.substr(at));
    require(found.value == expected.value && found.size == expected.size, "decodes as the reference does");
    line += harmless(expected.value);
    at += expected.size;
    if (steps < count) cut = at;
  }
  require(text::next_code_point({}).size == 0, "the end has no size");

  const std::string_view start = text::first_code_points(text, count);
  require(start.data() == text.data() && start.size() == cut, "cuts after the last whole code point");
  require(text::first_code_points(text, steps) == text, "a limit that is enough cuts nothing");
  require(text::one_line(text) == line, "harmful characters are escaped, ill-formed parts replaced, the rest kept");
  require(text::one_line(line) == line, "a harmless line stays as it is");
}

}  // namespace vision::fuzz
