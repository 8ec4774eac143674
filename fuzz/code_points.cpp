// Texts are cut between code points, where an independent decoder sees them.
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "fuzz/reference_utf8.hpp"
#include "vision/text/utf8.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vision;
  fuzz::Input input(data, size);
  const std::size_t count = input.number<std::uint8_t>();
  const std::string_view text = input.rest();

  std::size_t steps = 0, cut = 0;
  std::string encoded;
  for (std::size_t at = 0; at < text.size(); ++steps) {
    const fuzz::Step expected = fuzz::reference_step(text.substr(at));
    const text::CodePoint found = text::next_code_point(text.substr(at));
    fuzz::require(found.value == expected.value && found.size == expected.size, "decodes as the reference does");
    text::append_utf8(encoded, found.value);
    at += expected.size;
    if (steps < count) cut = at;
  }
  fuzz::require(encoded == fuzz::well_formed(text), "encodes as the reference does");
  fuzz::require(text::next_code_point({}).size == 0, "the end has no size");

  const std::string_view start = text::first_code_points(text, count);
  fuzz::require(start.data() == text.data() && start.size() == cut, "cuts after the last whole code point");
  fuzz::require(text::first_code_points(text, steps) == text, "a limit that is enough cuts nothing");
  return 0;
}
