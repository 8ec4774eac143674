#include "chromium/input/key_layout.hpp"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace {

struct NamedKey {
  const char* key;
  const char* code;
  int virtual_code;
  int location;
  Modifier modifier;
};

// Where a name has several rows, the name alone means the first.
constexpr NamedKey named_keys[] = {
    {"Enter", "Enter", 13, 0, no_modifier},
    {"Tab", "Tab", 9, 0, no_modifier},
    {"Backspace", "Backspace", 8, 0, no_modifier},
    {"Delete", "Delete", 46, 0, no_modifier},
    {"Insert", "Insert", 45, 0, no_modifier},
    {"Escape", "Escape", 27, 0, no_modifier},
    {"ArrowLeft", "ArrowLeft", 37, 0, no_modifier},
    {"ArrowUp", "ArrowUp", 38, 0, no_modifier},
    {"ArrowRight", "ArrowRight", 39, 0, no_modifier},
    {"ArrowDown", "ArrowDown", 40, 0, no_modifier},
    {"Home", "Home", 36, 0, no_modifier},
    {"End", "End", 35, 0, no_modifier},
    {"PageUp", "PageUp", 33, 0, no_modifier},
    {"PageDown", "PageDown", 34, 0, no_modifier},
    {"Shift", "ShiftLeft", 16, 1, shift},
    {"Shift", "ShiftRight", 16, 2, shift},
    {"Control", "ControlLeft", 17, 1, control},
    {"Control", "ControlRight", 17, 2, control},
    {"Alt", "AltLeft", 18, 1, alt},
    {"Alt", "AltRight", 18, 2, alt},
    {"Meta", "MetaLeft", 91, 1, meta},
    {"Meta", "MetaRight", 92, 2, meta},
    {"AltGraph", "AltRight", 225, 2, no_modifier},
    {"CapsLock", "CapsLock", 20, 0, no_modifier},
    {"NumLock", "NumLock", 144, 0, no_modifier},
    {"ScrollLock", "ScrollLock", 145, 0, no_modifier},
    {"Clear", "NumpadClear", 12, 3, no_modifier},
    {"Pause", "Pause", 19, 0, no_modifier},
    {"Cancel", "Abort", 3, 0, no_modifier},
    {"Convert", "Convert", 28, 0, no_modifier},
    {"NonConvert", "NonConvert", 29, 0, no_modifier},
    {"Accept", "Accept", 30, 0, no_modifier},
    {"ModeChange", "ModeChange", 31, 0, no_modifier},
    {"Select", "Select", 41, 0, no_modifier},
    {"Execute", "Open", 43, 0, no_modifier},
    {"PrintScreen", "PrintScreen", 44, 0, no_modifier},
    {"Help", "Help", 47, 0, no_modifier},
    {"ContextMenu", "ContextMenu", 93, 0, no_modifier},
    {"BrowserBack", "BrowserBack", 166, 0, no_modifier},
    {"BrowserForward", "BrowserForward", 167, 0, no_modifier},
    {"BrowserRefresh", "BrowserRefresh", 168, 0, no_modifier},
    {"BrowserStop", "BrowserStop", 169, 0, no_modifier},
    {"BrowserSearch", "BrowserSearch", 170, 0, no_modifier},
    {"BrowserFavorites", "BrowserFavorites", 171, 0, no_modifier},
    {"BrowserHome", "BrowserHome", 172, 0, no_modifier},
    {"AudioVolumeMute", "AudioVolumeMute", 173, 0, no_modifier},
    {"AudioVolumeDown", "AudioVolumeDown", 174, 0, no_modifier},
    {"AudioVolumeUp", "AudioVolumeUp", 175, 0, no_modifier},
    {"MediaTrackNext", "MediaTrackNext", 176, 0, no_modifier},
    {"MediaTrackPrevious", "MediaTrackPrevious", 177, 0, no_modifier},
    {"MediaStop", "MediaStop", 178, 0, no_modifier},
    {"MediaPlayPause", "MediaPlayPause", 179, 0, no_modifier},
};

struct CharacterKey {
  char plain;
  char shifted;  // 0 if Shift changes nothing
  const char* code;
  int virtual_code;
  int location;
};

constexpr CharacterKey character_keys[] = {
    {' ', 0, "Space", 32, 0},
    {'`', '~', "Backquote", 192, 0},
    {'-', '_', "Minus", 189, 0},
    {'=', '+', "Equal", 187, 0},
    {'[', '{', "BracketLeft", 219, 0},
    {']', '}', "BracketRight", 221, 0},
    {'\\', '|', "Backslash", 220, 0},
    {';', ':', "Semicolon", 186, 0},
    {'\'', '"', "Quote", 222, 0},
    {',', '<', "Comma", 188, 0},
    {'.', '>', "Period", 190, 0},
    {'/', '?', "Slash", 191, 0},
    {'\\', '|', "IntlBackslash", 226, 0},
    {'*', 0, "NumpadMultiply", 106, 3},
    {'+', 0, "NumpadAdd", 107, 3},
    {'-', 0, "NumpadSubtract", 109, 3},
    {'.', 0, "NumpadDecimal", 110, 3},
    {'/', 0, "NumpadDivide", 111, 3},
};

// Other spellings that models write for keys, in lower case and without separators.
constexpr std::pair<const char*, const char*> spellings[] = {
    {"return", "Enter"},
    {"kpenter", "NumpadEnter"},
    {"esc", "Escape"},
    {"del", "Delete"},
    {"ins", "Insert"},
    {"bksp", "Backspace"},
    {"spacebar", "Space"},
    {"up", "ArrowUp"},
    {"down", "ArrowDown"},
    {"left", "ArrowLeft"},
    {"right", "ArrowRight"},
    {"uparrow", "ArrowUp"},
    {"downarrow", "ArrowDown"},
    {"leftarrow", "ArrowLeft"},
    {"rightarrow", "ArrowRight"},
    {"pgup", "PageUp"},
    {"pgdn", "PageDown"},
    {"pgdown", "PageDown"},
    {"ctrl", "Control"},
    {"cmd", "ControlOrMeta"},
    {"command", "ControlOrMeta"},
    {"option", "Alt"},
    {"altgr", "AltGraph"},
    {"super", "Meta"},
    {"win", "Meta"},
    {"windows", "Meta"},
    {"plus", "+"},
};

// "Page_Down", "page down" and "PAGEDOWN" have one spelling; "a" and "A" are two keys.
std::string spelling_of(std::string_view name) {
  std::string out;
  for (const char c : name) {
    const bool upper = c >= 'A' && c <= 'Z';
    if (c != ' ' && c != '_' && c != '-') out += upper ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

// The Windows key codes of Numpad0 and F1; those of their successors follow.
constexpr int numpad_0 = 96, f1 = 112;

class Layout {
 public:
  Layout() {
    for (char c = 'a'; c <= 'z'; ++c) {
      const char upper = static_cast<char>(c - 'a' + 'A');
      add_character(c, upper, std::string("Key") + upper, upper, 0);
    }
    constexpr std::string_view over_digits = ")!@#$%^&*(";
    for (char c = '0'; c <= '9'; ++c) {
      const auto shifted = over_digits[static_cast<std::size_t>(c - '0')];
      add_character(c, shifted, std::string("Digit") + c, c, 0);
    }
    for (const auto& entry : character_keys) {
      add_character(entry.plain, entry.shifted, entry.code, entry.virtual_code, entry.location);
    }
    for (char c = '0'; c <= '9'; ++c)
      add_character(c, 0, std::string("Numpad") + c, numpad_0 + c - '0', numeric_keypad);
    for (const auto& entry : named_keys) {
      Key key;
      key.key = entry.key;
      key.code = entry.code;
      key.virtual_code = entry.virtual_code;
      key.location = entry.location;
      key.modifier = entry.modifier;
      add_named(key);
    }
    for (int i = 1; i <= 24; ++i) {
      Key key;
      key.key = key.code = "F" + std::to_string(i);
      key.virtual_code = f1 + i - 1;
      add_named(key);
    }
    Key keypad_enter = names_.at("Enter");
    keypad_enter.code = "NumpadEnter";
    keypad_enter.location = numeric_keypad;
    names_.emplace("NumpadEnter", keypad_enter);
    names_.emplace("ControlOrMeta", names_.at("Control"));
    for (const char* line_end : {"\n", "\r"}) names_.emplace(line_end, names_.at("Enter"));
    for (const auto& [name, key] : names_) {
      if (name.size() > 1) spellings_.emplace(spelling_of(name), key);
    }
    for (const auto& [spelling, name] : spellings) spellings_.emplace(spelling, names_.at(name));
  }

  std::optional<Key> find(std::string_view name) const { return find_in(names_, name); }

  std::optional<Key> find_leniently(std::string_view name) const {
    if (auto key = find(name)) return key;
    const std::size_t first = std::min(name.find_first_not_of(' '), name.size());
    name = name.substr(first, name.find_last_not_of(' ') + 1 - first);
    if (auto key = find(name)) return key;
    return find_in(spellings_, spelling_of(name));
  }

 private:
  // Where a character is on two keys, it means the first.
  void add_character(char plain, char shifted, const std::string& code, int virtual_code, int location) {
    Key key;
    key.key = key.text = std::string(1, plain);
    key.code = code;
    key.virtual_code = virtual_code;
    key.location = location;
    if (shifted != 0) key.shifted = std::string(1, shifted);
    names_.emplace(code, key);
    names_.emplace(key.key, key);
    if (shifted == 0) return;
    key.key = key.text = key.shifted;
    names_.emplace(key.key, key);
  }

  void add_named(Key key) {
    if (key.key == "Enter") key.text = "\r";  // the browser ignores a line feed
    names_.emplace(key.code, key);
    names_.emplace(key.key, key);
  }

  using Keys = std::map<std::string, Key, std::less<>>;
  static std::optional<Key> find_in(const Keys& keys, std::string_view name) {
    const auto found = keys.find(name);
    return found == keys.end() ? std::nullopt : std::optional<Key>(found->second);
  }

  Keys names_;
  Keys spellings_;
};

const Layout& layout() {
  static const Layout instance;
  return instance;
}

}  // namespace

std::optional<Key> find_key(std::string_view name) {
  return layout().find(name);
}

std::vector<Key> parse_chord(std::string_view chord) {
  constexpr std::size_t max_keys_of_chord = 16, max_quoted = 40;
  const auto unknown = [](std::string_view name) {
    return std::invalid_argument("Unknown key: \"" + text::one_line(name) + "\"");
  };
  std::vector<Key> out;
  for (std::size_t start = 0; start <= chord.size();) {
    // A name has at least one character, so "+" can be a name.
    const std::size_t end = std::min(chord.find('+', start + 1), chord.size());
    const std::string_view name = chord.substr(start, end - start);
    if (out.size() == max_keys_of_chord) {
      throw std::invalid_argument("more than " + std::to_string(max_keys_of_chord) + " keys in the chord \"" +
                                  text::one_line(text::first_code_points(chord, max_quoted)) + "...\"");
    }
    auto key = layout().find_leniently(name);
    if (!key) throw unknown(name.empty() ? chord : name);
    out.push_back(std::move(*key));
    if (end == chord.size()) break;
    start = end + 1;
  }
  return out;
}

Key with_modifiers(Key key, int held) {
  if ((held & shift) != 0 && !key.shifted.empty()) key.key = key.text = key.shifted;
  if ((held & ~shift) != 0) key.text.clear();
  return key;
}

}  // namespace vision::chromium
