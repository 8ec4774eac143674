#include <gtest/gtest.h>

#include <stdexcept>

#include "chromium/endpoint.hpp"
#include "chromium/key_layout.hpp"

namespace vision::chromium {
namespace {

TEST(KeyLayout, NamesCodesAndCharacters) {
  struct Case {
    const char* name;
    const char* key;
    const char* code;
    int virtual_code;
    const char* text;
    int location;
  };
  const Case cases[] = {
      {"a", "a", "KeyA", 65, "a", 0},
      {"A", "A", "KeyA", 65, "A", 0},
      {"KeyA", "a", "KeyA", 65, "a", 0},
      {"1", "1", "Digit1", 49, "1", 0},
      {"!", "!", "Digit1", 49, "!", 0},
      {")", ")", "Digit0", 48, ")", 0},
      {"Digit9", "9", "Digit9", 57, "9", 0},
      {" ", " ", "Space", 32, " ", 0},
      {"Space", " ", "Space", 32, " ", 0},
      {"\"", "\"", "Quote", 222, "\"", 0},
      {"+", "+", "Equal", 187, "+", 0},
      {"\\", "\\", "Backslash", 220, "\\", 0},
      {"Enter", "Enter", "Enter", 13, "\r", 0},
      {"NumpadEnter", "Enter", "NumpadEnter", 13, "\r", 3},
      {"Numpad7", "7", "Numpad7", 103, "7", 3},
      {"NumpadAdd", "+", "NumpadAdd", 107, "+", 3},
      {"ArrowUp", "ArrowUp", "ArrowUp", 38, "", 0},
      {"F1", "F1", "F1", 112, "", 0},
      {"F24", "F24", "F24", 135, "", 0},
      {"Shift", "Shift", "ShiftLeft", 16, "", 1},
      {"ShiftRight", "Shift", "ShiftRight", 16, "", 2},
      {"ControlOrMeta", "Control", "ControlLeft", 17, "", 1},
  };
  for (const auto& c : cases) {
    const auto key = find_key(c.name);
    ASSERT_TRUE(key) << c.name;
    EXPECT_EQ(key->key, c.key) << c.name;
    EXPECT_EQ(key->code, c.code) << c.name;
    EXPECT_EQ(key->virtual_code, c.virtual_code) << c.name;
    EXPECT_EQ(key->text, c.text) << c.name;
    EXPECT_EQ(key->location, c.location) << c.name;
  }
  for (char c = ' '; c <= '~'; ++c) EXPECT_TRUE(find_key(std::string(1, c))) << c;  // all that a US keyboard types
}

TEST(KeyLayout, Chords) {
  const std::pair<const char*, const char*> cases[] = {
      {"Enter", "Enter "},
      {"Control+Shift+T", "ControlLeft ShiftLeft KeyT "},
      {"Control++", "ControlLeft Equal "},
      {"+", "Equal "},
      {"ControlOrMeta+KeyA", "ControlLeft KeyA "},
      {"ShiftRight+ArrowLeft", "ShiftRight ArrowLeft "},
      {"Foo", "Unknown key: \"Foo\""},
      {"enter", "Unknown key: \"enter\""},
      {"F25", "Unknown key: \"F25\""},
      {"Control+Foo", "Unknown key: \"Foo\""},
      {"Control+", "Unknown key: \"Control+\""},
      {"\xc3\xbc", "Unknown key: \"\xc3\xbc\""},
      {"a\nb", "Unknown key: \"a\\nb\""},
      {"", "Unknown key: \"\""},
  };
  for (const auto& [chord, expected] : cases) {
    std::string got;
    try {
      for (const Key& key : parse_chord(chord)) got += key.code + " ";
    } catch (const std::invalid_argument& error) {
      got = error.what();
    }
    EXPECT_EQ(got, expected) << chord;
  }
}

TEST(Endpoint, TakesUrlsApartAndRefusesOthers) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://127.0.0.1:9222", "http 127.0.0.1 9222 / loopback"},
      {"http://localhost:9222/", "http localhost 9222 / loopback"},
      {"http://[::1]:9222", "http ::1 9222 / loopback"},
      {"ws://127.0.0.1:1/devtools/browser/a-b", "ws 127.0.0.1 1 /devtools/browser/a-b loopback"},
      {"http://10.0.0.1:9222", "http 10.0.0.1 9222 / elsewhere"},
      {"http://localhost.example:9222", "http localhost.example 9222 / elsewhere"},
      {"127.0.0.1:9222", "refused"},
      {"https://127.0.0.1:9222", "refused"},
      {"wss://127.0.0.1:9222/devtools/browser/a", "refused"},
      {"ws://127.0.0.1:9222/devtools/page/a", "refused"},
      {"ws://127.0.0.1:9222/devtools/browser/a\r\nX: y", "refused"},
      {"http://127.0.0.1\r\nX: y:80", "refused"},
      {"http://localhost@10.0.0.1:9222", "refused"},
      {"http://127.0.0.1", "refused"},
      {"http://127.0.0.1:0", "refused"},
      {"http://127.0.0.1:65536", "refused"},
      {"http://:9222", "refused"},
      {"", "refused"},
  };
  for (const auto& [url, expected] : cases) {
    std::string got = "refused";
    try {
      const Endpoint e = parse_endpoint(url);
      got = e.scheme + " " + e.host + " " + e.port + " " + e.path + (is_loopback(e.host) ? " loopback" : " elsewhere");
    } catch (const std::invalid_argument&) {
    }
    EXPECT_EQ(got, expected) << url;
  }
}

}  // namespace
}  // namespace vision::chromium
