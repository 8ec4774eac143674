#include "chromium/input/keyboard.hpp"

#include <algorithm>
#include <cassert>
#include <utility>

#include "chromium/input/bring_to_front.hpp"
#include "chromium/protocol/json_object.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

json::object key_event(std::string_view type, const Key& key, int modifiers, bool repeats = false) {
  json::object out =
      make_object("type", type, "key", key.key, "code", key.code, "windowsVirtualKeyCode", key.virtual_code,
                  "modifiers", modifiers, "location", key.location, "isKeypad", key.location == numeric_keypad);
  // A rawKeyDown types nothing: the key has no text, or a modifier takes it away.
  if (type == "keyDown") out.emplace("text", key.text);
  if (repeats) out.emplace("autoRepeat", true);
  return out;
}

}  // namespace

// The keys of a chord that are down. If the chord fails or is cancelled half-way, they
// are released without waiting.
class PageKeyboard::HeldKeys {
 public:
  explicit HeldKeys(std::shared_ptr<Session> session) : session_(std::move(session)) {}
  ~HeldKeys() {
    while (!keys_.empty()) session_->send_and_forget("Input.dispatchKeyEvent", release_last());
  }
  HeldKeys(const HeldKeys&) = delete;
  HeldKeys& operator=(const HeldKeys&) = delete;

  bool empty() const noexcept { return keys_.empty(); }

  // Returns the event to send. A key that is down already repeats.
  json::object press(Key key) {
    const auto is_same = [&](const Key& other) { return other.code == key.code; };
    const bool repeats = std::any_of(keys_.begin(), keys_.end(), is_same);
    modifiers_ |= key.modifier;
    keys_.push_back(with_modifiers(std::move(key), modifiers_));
    return key_event(keys_.back().text.empty() ? "rawKeyDown" : "keyDown", keys_.back(), modifiers_, repeats);
  }

  json::object release_last() {
    assert(!keys_.empty());
    const Key key = std::move(keys_.back());
    keys_.pop_back();
    modifiers_ = 0;
    for (const Key& other : keys_) {
      if (other.code != key.code) modifiers_ |= other.modifier;  // not of a key that repeated
    }
    return key_event("keyUp", key, modifiers_);
  }

 private:
  const std::shared_ptr<Session> session_;
  std::vector<Key> keys_;
  int modifiers_ = 0;
};

PageKeyboard::PageKeyboard(std::shared_ptr<Session> session, DocumentGuard& guard)
    : session_(std::move(session)), guard_(guard) {}

asio::awaitable<void> PageKeyboard::press_chord(std::vector<Key> chord) {
  HeldKeys held(session_);
  for (Key& key : chord) co_await session_->command("Input.dispatchKeyEvent", held.press(std::move(key)));
  while (!held.empty()) co_await session_->command("Input.dispatchKeyEvent", held.release_last());
}

asio::awaitable<void> PageKeyboard::press(std::string key) {
  std::vector<Key> chord = parse_chord(key);
  guard_.begin_input("keyboard.press", "pressed");
  bring_to_front(*session_);
  co_await press_chord(std::move(chord));
}

asio::awaitable<void> PageKeyboard::type(std::string text, std::chrono::milliseconds delay) {
  guard_.begin_input("keyboard.type", "typed");
  bring_to_front(*session_);
  bool first = true;
  char32_t previous = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const text::CodePoint point = text::next_code_point(rest);
    rest.remove_prefix(point.size);
    const char32_t before = std::exchange(previous, point.value);
    if (point.value == U'\n' && before == U'\r') continue;  // "\r\n" is one line end
    if (!std::exchange(first, false) && delay.count() > 0) co_await runtime::sleep_for(delay);
    std::string character;
    text::append_utf8(character, point.value);
    auto key = find_key(character);
    if (key) {
      std::vector<Key> chord(1, std::move(*key));
      co_await press_chord(std::move(chord));
    } else {
      co_await session_->command("Input.insertText", make_object("text", character));
    }
  }
}

}  // namespace vision::chromium
