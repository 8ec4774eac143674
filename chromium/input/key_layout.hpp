#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the keys of a US keyboard send.
namespace vision::chromium {

/// The bits of the protocol's "modifiers".
enum Modifier : int { no_modifier = 0, alt = 1, control = 2, meta = 4, shift = 8 };

/// The value of Key::location for keys of the numeric keypad.
inline constexpr int numeric_keypad = 3;

/// A key as a page sees it in keyboard events.
class Key {
 public:
  Key() {}
  std::string key;                  ///< KeyboardEvent.key: "a", "Enter"
  std::string code;                 ///< KeyboardEvent.code: "KeyA", "Enter"
  int virtual_code = 0;             ///< the Windows key code; without it, the browser edits nothing
  std::string text;                 ///< what it types; empty if nothing
  std::string shifted;              ///< what it types while Shift is held; empty if the same
  int location = 0;                 ///< 0, 1 left, 2 right, or numeric_keypad
  Modifier modifier = no_modifier;  ///< the modifier that it is
};

/// Returns the key called `name`: a KeyboardEvent.key name ("Enter"), a code ("KeyA",
/// "Digit1", "ShiftLeft"), one character of the layout ("a", "A", "%"), a line end
/// (Enter), or "ControlOrMeta" (Control here). Absent if there is no such key.
std::optional<Key> find_key(std::string_view name);

/// Returns the keys of a chord such as "Enter", "Control+Shift+T" or "Control++", in the
/// order in which they are pressed. A name that find_key does not know may also be one
/// that models write for a key: in another case ("enter"), with blanks, "_" or "-" in it
/// ("Page_Down"), or another word ("Return", "Esc", "Down", "Ctrl", "Cmd"). Throws
/// std::invalid_argument: `Unknown key: "Foo"`, or for more than 16 keys.
std::vector<Key> parse_chord(std::string_view chord);

/// Returns `key` as it is while the modifiers of `held` are down: Shift selects what it
/// types, and with any other modifier it types nothing.
Key with_modifiers(Key key, int held);

}  // namespace vision::chromium
