// Whatever a value holds, its text is one ASCII line that reads back to the same value,
// except that NaN and infinities read back as null, and ill-formed parts of texts as
// U+FFFD.
#include "fuzz/input.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::fuzz {
namespace {

namespace json = boost::json;

bool same(const json::value& value, const json::value& read) {
  if (const auto* real = value.if_double()) {
    if (!std::isfinite(*real)) return read.is_null();
    // Boost.JSON reads a real to within a few units of its last place, the C library exactly.
    const bool is_exact = std::strtod(text::to_json(value).c_str(), nullptr) == *real;
    return is_exact && read.is_double() && std::abs(read.get_double() - *real) <= 1e-14 * std::abs(*real) + 1e-300;
  }
  if (const auto* text = value.if_string()) return read.is_string() && read.get_string() == well_formed(*text);
  if (const auto* list = value.if_array()) {
    return read.is_array() &&
           std::equal(list->begin(), list->end(), read.get_array().begin(), read.get_array().end(), same);
  }
  const auto* map = value.if_object();
  if (!map) return value == read;
  json::object last;  // a key can become equal to an earlier one
  for (const auto& [key, item] : *map) last.insert_or_assign(well_formed(key), item);
  const auto same_entry = [](const auto& a, const auto& b) { return a.key() == b.key() && same(a.value(), b.value()); };
  return read.is_object() &&
         std::equal(last.begin(), last.end(), read.get_object().begin(), read.get_object().end(), same_entry);
}

}  // namespace

void check(Input input) {
  const json::value value = input.value();
  const std::string text = text::to_json(value);
  for (const char c : text) require(c >= ' ' && c <= 0x7F, "one line of ASCII");
  boost::system::error_code error;
  const json::value read = json::parse(text, error);
  require(!error, "a JSON reader accepts it");
  require(same(value, read), "it reads back to the same value");
}

}  // namespace vision::fuzz
