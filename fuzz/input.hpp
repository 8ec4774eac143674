#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vision::fuzz {

/// A fuzzer's bytes, taken piece by piece. Past the end everything is zero or
/// empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const noexcept { return rest_.empty(); }
  std::string_view rest() const noexcept { return rest_; }

  template <class Number>
  Number number() {
    Number out{};
    const std::string_view bytes = take(sizeof out);
    std::memcpy(&out, bytes.data(), bytes.size());
    return out;
  }

  /// At most 255 bytes, after one that tells how many.
  std::string_view text() { return take(number<std::uint8_t>()); }

  /// What comes before the next `end`, which is dropped.
  std::string_view until(char end) {
    const auto out = rest_.substr(0, rest_.find(end));
    take(out.size() + 1);
    return out;
  }

  /// A JSON value of any kind, with numbers and texts that no JSON text can hold.
  boost::json::value value(int levels = 6) {
    switch (number<char>()) {
      case 't': return true;
      case 'f': return false;
      case 'i': return number<std::int64_t>();
      case 'u': return number<std::uint64_t>();
      case 'd': return number<double>();
      case 's': return boost::json::string(text());
      case '[': return array(levels);
      case '{': return object(levels);
      default: return nullptr;
    }
  }

 private:
  std::string_view take(std::size_t size) {
    const auto out = rest_.substr(0, size);
    rest_.remove_prefix(out.size());
    return out;
  }

  boost::json::value array(int levels) {
    boost::json::array out;
    for (auto left = number<std::uint8_t>(); left > 0 && levels > 0 && !empty(); --left)
      out.push_back(value(levels - 1));
    return out;
  }

  boost::json::value object(int levels) {
    boost::json::object out;
    for (auto left = number<std::uint8_t>(); left > 0 && levels > 0 && !empty(); --left) {
      const std::string_view key = text();
      out.insert_or_assign(key, value(levels - 1));
    }
    return out;
  }

  std::string_view rest_;
};

}  // namespace vision::fuzz
