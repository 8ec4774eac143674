// What enters a log line cannot end it, steer a terminal or be unreadable.
#include <cstdio>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "fuzz/reference_utf8.hpp"
#include "vision/text/utf8.hpp"

namespace {

bool is_harmful(std::uint32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
}

std::string escape(std::uint32_t c) {
  if (c == '\n') return "\\n";
  if (c == '\r') return "\\r";
  if (c == '\t') return "\\t";
  char out[8];
  std::snprintf(out, sizeof out, "\\u%04x", c);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vision;
  const std::string_view text = fuzz::Input(data, size).rest();
  std::string expected;
  for (std::string_view rest = text; !rest.empty();) {
    const fuzz::Step step = fuzz::reference_step(rest);
    expected += is_harmful(step.value) ? escape(step.value) : fuzz::reference_encode(step.value);
    rest.remove_prefix(step.size);
  }
  const std::string line = text::one_line(text);
  fuzz::require(line == expected, "harmful characters are escaped, ill-formed parts replaced, the rest kept");
  fuzz::require(text::one_line(line) == line, "a harmless line stays as it is");
  return 0;
}
