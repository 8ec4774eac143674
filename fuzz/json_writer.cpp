// Whatever a value holds, its text is one ASCII line that reads back to the same
// value: but for NaN and infinities, which read back as null, and ill-formed
// parts of texts, which read back as U+FFFD.
#include <boost/json/parse.hpp>
#include <cmath>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "fuzz/reference_utf8.hpp"
#include "vision/text/json_text.hpp"

namespace {

namespace json = boost::json;

// A key can become equal to an earlier one; the reader then keeps the last.
json::value as_read_back(const json::value& value) {
  if (const auto* real = value.if_double(); real && !std::isfinite(*real)) return nullptr;
  if (const auto* text = value.if_string()) return json::string(vision::fuzz::well_formed(*text));
  if (const auto* list = value.if_array()) {
    json::array out;
    for (const auto& item : *list) out.push_back(as_read_back(item));
    return out;
  }
  if (const auto* map = value.if_object()) {
    json::object out;
    for (const auto& [key, item] : *map) out.insert_or_assign(vision::fuzz::well_formed(key), as_read_back(item));
    return out;
  }
  return value;
}

// Boost.JSON reads a real to within a few units of its last place, so reals go
// through the C library here.
void require_exact_reals(const json::value& value) {
  if (const auto* real = value.if_double(); real && std::isfinite(*real)) {
    const std::string text = vision::text::to_json(value);
    vision::fuzz::require(std::strtod(text.c_str(), nullptr) == *real, "a real reads back exactly");
    vision::fuzz::require(text.find_first_of(".e") != text.npos, "a real does not read back as an integer");
  }
  if (const auto* list = value.if_array()) {
    for (const auto& item : *list) require_exact_reals(item);
  }
  if (const auto* map = value.if_object()) {
    for (const auto& entry : *map) require_exact_reals(entry.value());
  }
}

bool same(const json::value& a, const json::value& b) {
  if (a.is_double() && b.is_double()) {
    return std::abs(a.get_double() - b.get_double()) <= 1e-14 * std::abs(a.get_double()) + 1e-300;
  }
  if (a.is_array() && b.is_array()) {
    return std::equal(a.get_array().begin(), a.get_array().end(), b.get_array().begin(), b.get_array().end(), same);
  }
  if (!a.is_object() || !b.is_object()) return a == b;
  const auto equal_entry = [](const auto& x, const auto& y) {
    return x.key() == y.key() && same(x.value(), y.value());
  };
  return std::equal(a.get_object().begin(), a.get_object().end(), b.get_object().begin(), b.get_object().end(),
                    equal_entry);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const json::value value = vision::fuzz::Input(data, size).value();
  const std::string text = vision::text::to_json(value);
  for (const char c : text) vision::fuzz::require(c >= ' ' && c <= '~', "one line of printable ASCII");
  boost::system::error_code error;
  const json::value read_back = json::parse(text, error);
  vision::fuzz::require(!error, "a JSON reader accepts it");
  vision::fuzz::require(same(as_read_back(value), read_back), "it reads back to the same value");
  require_exact_reals(value);
  return 0;
}
