#pragma once

#include <unicode/utf8.h>

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "vision/text/internal/utf8.hpp"

namespace vision::fuzz {

/// The fuzzer's remaining bytes, taken piece by piece. Past the end everything is zero
/// or empty.
struct Input : std::string_view {
  std::string_view take(std::size_t count) {
    const auto out = substr(0, count);
    remove_prefix(out.size());
    return out;
  }

  template <class Number>
  Number number() {
    Number out{};
    const std::string_view bytes = take(sizeof out);
    std::memcpy(&out, bytes.data(), bytes.size());
    return out;
  }

  /// At most 255 bytes, after one that holds their number.
  std::string_view text() { return take(number<std::uint8_t>()); }

  /// What comes before the next `end`, which is dropped.
  std::string_view until(char end) {
    const auto out = take(find(end));
    take(1);
    return out;
  }

  /// A JSON value of any kind, with numbers and texts that no JSON text can hold.
  boost::json::value value(int levels = 6) {
    const char kind = number<char>();
    boost::json::array list;
    boost::json::object map;
    switch (kind) {
      case 't':
      case 'f': return kind == 't';
      case 'i': return number<std::int64_t>();
      case 'u': return number<std::uint64_t>();
      case 'd': return number<double>();
      case 's': return boost::json::string(text());
      case '[':
      case '{': break;
      default: return nullptr;
    }
    for (auto left = number<std::uint8_t>(); left > 0 && levels > 0 && !empty(); --left) {
      const std::string_view key = kind == '{' ? text() : std::string_view();
      auto& item = kind == '{' ? map[key] : list.emplace_back(nullptr);
      item = value(levels - 1);
    }
    return kind == '{' ? boost::json::value(map) : boost::json::value(list);
  }

  /// The rest, as JSON text if it begins like an object, else as a value().
  boost::json::value document() {
    boost::system::error_code error;
    return starts_with('{') ? boost::json::parse(*this, error) : value();
  }
};

/// Ends the program when a property does not hold, so that libFuzzer keeps the
/// input.
inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

/// The first code point of `text`, which is not empty, as another library sees it.
inline text::CodePoint reference_step(std::string_view text) {
  std::size_t size = 0;
  UChar32 value = 0;
  U8_NEXT_OR_FFFD(text.data(), size, text.size(), value);
  return {static_cast<std::uint32_t>(value), size};
}

inline std::string reference_encode(std::uint32_t value) {
  char out[U8_MAX_LENGTH];
  std::size_t size = 0;
  U8_APPEND_UNSAFE(out, size, value);
  return {out, size};
}

/// `text` with every ill-formed part replaced by U+FFFD.
inline std::string well_formed(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto step = reference_step(text);
    out += reference_encode(step.value);
    text.remove_prefix(step.size);
  }
  return out;
}

/// The target: each program defines its own.
void check(Input input);

}  // namespace vision::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::check({{reinterpret_cast<const char*>(data), size}});
  return 0;
}
