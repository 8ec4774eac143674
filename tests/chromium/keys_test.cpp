#include <gtest/gtest.h>

#include <stdexcept>

#include "chromium/endpoint.hpp"
#include "chromium/key_layout.hpp"

namespace vision::chromium {
namespace {

std::string chord_text(const std::string& chord) {
  std::string out;
  try {
    for (const Key& key : parse_chord(chord)) {
      const std::string numbers = std::to_string(key.virtual_code) + " " + std::to_string(key.location);
      out += (out.empty() ? "" : ", ") + key.key + " " + key.code + " " + numbers + " " + key.text;
    }
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return out;
}

TEST(KeyLayout, NamesCodesCharactersAndChords) {
  const std::pair<const char*, const char*> rows[] = {
      {"a", "a KeyA 65 0 a"},
      {"A", "A KeyA 65 0 A"},
      {"\\", "\\ Backslash 220 0 \\"},
      {"Enter", "Enter Enter 13 0 \r"},
      {"NumpadEnter", "Enter NumpadEnter 13 3 \r"},
      {"F24", "F24 F24 135 0 "},
      {"ShiftRight", "Shift ShiftRight 16 2 "},
      {"Control++", "Control ControlLeft 17 1 , + Equal 187 0 +"},
      {"ControlOrMeta+Shift+T", "Control ControlLeft 17 1 , Shift ShiftLeft 16 1 , T KeyT 84 0 T"},
      {"\xc3\xbc", "Unknown key: \"\xc3\xbc\""},
  };
  for (const auto& [chord, expected] : rows) EXPECT_EQ(chord_text(chord), expected) << chord;
  for (char c = ' '; c <= '~'; ++c) EXPECT_TRUE(find_key(std::string(1, c))) << c;  // all that a US keyboard types
}

TEST(Endpoint, TakesUrlsApartAndRefusesOthers) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://127.0.0.1:9222", "http 127.0.0.1 9222 / loopback"},
      {"http://[::1]:9222", "http ::1 9222 / loopback"},
      {"ws://127.0.0.1:1/devtools/browser/a-b", "ws 127.0.0.1 1 /devtools/browser/a-b loopback"},
      {"http://localhost.example:9222", "http localhost.example 9222 / elsewhere"},
      {"https://127.0.0.1:9222", "only http and ws are supported"},
      {"ws://127.0.0.1:9222/devtools/page/a",
       "not the browser's own URL (ws://host:port/devtools/browser/...); a page is reached with attach()"},
      {"http://h\r\nX: y:80", "the host has a character that a host's name cannot have"},
      {"http://localhost@10.0.0.1:9222", "the host has a character that a host's name cannot have"},
      {"http://127.0.0.1", "no port given"},
      {"http://127.0.0.1:65536", "the port is not a number from 1 to 65535"},
  };
  for (const auto& [url, expected] : rows) {
    std::string got;
    try {
      const Endpoint e = parse_endpoint(url);
      got = e.scheme + " " + e.host + " " + e.port + " " + e.path + (is_loopback(e.host) ? " loopback" : " elsewhere");
    } catch (const std::invalid_argument& error) {
      got = error.what();
      got = got.substr(got.find("\": ") + 3);
    }
    EXPECT_EQ(got, expected) << url;
  }
}

}  // namespace
}  // namespace vision::chromium
