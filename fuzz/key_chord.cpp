// A chord is the keys between its plus signs, or an error of one harmless line.
#include "chromium/input/key_layout.hpp"
#include "fuzz/input.hpp"

namespace vision::fuzz {
void check(Input input) {
  const auto parse = [](const std::string& chord) -> std::optional<std::vector<chromium::Key>> {
    try {
      return chromium::parse_chord(chord);
    } catch (const std::invalid_argument& e) {
      const std::string_view message = e.what();
      require(message.starts_with("Unknown key: \"") || message.starts_with("more than 16 keys in the chord \""),
              "an error says what is wrong");
      require(text::one_line(message) == message, "an error is one harmless line");
      return {};
    }
  };
  const int held = input.number<std::uint8_t>() & 0xF;
  const std::string chord(input);
  const auto keys = parse(chord), longer = parse("Control+" + chord);
  const bool is_longest = keys && keys->size() == 16;
  require((keys && !is_longest) == longer.has_value(), "a known key before it changes nothing");
  require(!chromium::find_key(chord) || (keys && keys->size() == 1), "a key is a chord");
  if (!longer) return;
  require(!keys->empty() && longer->size() == keys->size() + 1, "every name is one key");
  for (std::size_t i = 0; i < keys->size(); ++i) {
    const chromium::Key& key = (*keys)[i];
    require((*longer)[i + 1].code == key.code, "keys keep their order");
    require(!key.key.empty() && !key.code.empty() && key.virtual_code > 0, "a key is complete");
    const auto struck = chromium::with_modifiers(key, held);
    require((held & ~chromium::shift) == 0 || struck.text.empty(), "a shortcut types nothing");
    require((held & ~chromium::shift) != 0 || struck.text.empty() == key.text.empty(),
            "Shift neither adds nor takes away text");
  }
}

}  // namespace vision::fuzz
