// A chord is the keys between its pluses, or an error of one harmless line.
#include <stdexcept>

#include "chromium/key_layout.hpp"
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/text/utf8.hpp"

namespace {

using namespace vision::chromium;
using vision::fuzz::require;

std::optional<std::vector<Key>> parse(const std::string& chord) {
  try {
    return parse_chord(chord);
  } catch (const std::invalid_argument& e) {
    const std::string_view message = e.what();
    require(message.starts_with("Unknown key: \""), "an error says what is unknown");
    require(vision::text::one_line(message) == message, "an error is one harmless line");
    return {};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const int held = input.number<std::uint8_t>() & 0xF;
  const std::string chord(input.rest());
  const auto keys = parse(chord);
  const auto longer = parse("Control+" + chord);
  require(keys.has_value() == longer.has_value(), "a known key before it changes nothing");
  if (const auto alone = find_key(chord)) require(keys && keys->size() == 1, "a key is a chord");
  if (!keys) return 0;
  require(!keys->empty() && longer->size() == keys->size() + 1, "every name is one key");
  for (std::size_t i = 0; i < keys->size(); ++i) {
    const Key& key = (*keys)[i];
    require((*longer)[i + 1].code == key.code, "keys keep their order");
    require(!key.key.empty() && !key.code.empty() && key.virtual_code > 0, "a key is complete");
    const Key struck = under_modifiers(key, held);
    require((held & ~shift) == 0 || struck.text.empty(), "a short cut types nothing");
    require((held & ~shift) != 0 || struck.text.empty() == key.text.empty(), "Shift neither adds nor takes away text");
  }
  return 0;
}
