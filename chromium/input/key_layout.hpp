#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the keys of a US keyboard send. Pure tables.
namespace vision::chromium {

/// The bits of the protocol's "modifiers".
enum Modifier : int { no_modifier = 0, alt = 1, control = 2, meta = 4, shift = 8 };

/// One key, as one stroke of it appears in a page.
class Key {
 public:
  Key() {}
  std::string key;                  ///< KeyboardEvent.key: "a", "Enter"
  std::string code;                 ///< KeyboardEvent.code: "KeyA", "Enter"
  int virtual_code = 0;             ///< the Windows key code, without which nothing is edited
  std::string text;                 ///< what it types; empty when nothing
  std::string shifted;              ///< what it types while Shift is held; empty when the same
  int location = 0;                 ///< 1 left, 2 right, 3 numeric keypad
  Modifier modifier = no_modifier;  ///< what holding it means
};

/// The key called `name`: a KeyboardEvent.key name ("Enter"), a code ("KeyA",
/// "Digit1", "ShiftLeft"), one character of the layout ("a", "A", "%"), or
/// "ControlOrMeta" (Control here). Absent when there is none.
std::optional<Key> find_key(std::string_view name);

/// The keys of a chord such as "Enter", "Control+Shift+T" or "Control++", in the
/// order in which they go down. Throws std::invalid_argument, `Unknown key: "Foo"`,
/// for a name that find_key does not know.
std::vector<Key> parse_chord(std::string_view chord);

/// `key` with what it sends while the modifiers of `held` are down: Shift gives
/// upper case, and with any other one no text results.
Key under_modifiers(Key key, int held);

}  // namespace vision::chromium
