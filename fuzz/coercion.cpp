// Whatever kind of value a model sends, a field is in its range or absent.
#include <cmath>
#include <limits>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/records/coercion.hpp"
#include "vision/records/errors.hpp"
#include "vision/text/numbers.hpp"
#include "vision/text/utf8.hpp"

namespace {

using vision::fuzz::require;
using Limits = std::numeric_limits<std::int64_t>;

void check_integer(const boost::json::value& value) {
  std::optional<std::int64_t> whole;
  try {
    whole = vision::_opt_int(&value);
  } catch (const vision::ConversionError&) {
    require(value.is_double() && std::isinf(value.get_double()), "only an infinity is refused");
    return;
  }
  if (const auto* integer = value.if_int64()) require(whole == *integer, "an integer stays as it is");
  if (const auto* real = value.if_double(); real && std::abs(*real) < 9e18) {
    require(whole && std::trunc(*real) == static_cast<double>(*whole), "a real is truncated");
  }
  require(!whole || !(value.is_array() || value.is_object() || value.is_null()),
          "only numbers and texts have integers");
}

void check_integer_text(std::string_view text) {
  const auto whole = vision::text::parse_integer(text);
  const auto real = vision::text::parse_real(text);
  if (!whole) return;
  require(real.has_value(), "what is an integer is a real");
  const bool in_range = *whole != Limits::min() && *whole != Limits::max();
  require(!in_range || static_cast<double>(*whole) == *real, "an integer and its real agree");
  require(in_range || (*whole < 0 ? *real <= -9.2e18 : *real >= 9.2e18), "what is out of range becomes the limit");
}

void check_real_text(std::string_view text) {
  const auto real = vision::text::parse_real(text);
  if (!real) return;
  const std::string trimmed(vision::text::trim(text));
  char* end = nullptr;
  const double expected = std::strtod(trimmed.c_str(), &end);
  require(end == trimmed.c_str() + trimmed.size(), "the C library reads all of it too");
  require(std::isnan(*real) ? std::isnan(expected) : *real == expected, "the C library reads the same real");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const auto dimension = input.number<std::int64_t>();
  const boost::json::value value = input.value();
  for (const auto& dim : {std::optional(dimension), std::optional<std::int64_t>()}) {
    const auto ratio = vision::_norm_ratio(&value, dim);
    require(!ratio || (*ratio >= 0 && *ratio <= 1), "a ratio is within the viewport");
    const auto real = vision::_opt_float(&value);
    require(ratio.has_value() == (real && std::isfinite(*real)), "every finite number has a ratio");
  }
  check_integer(value);
  const auto text = vision::_opt_str(&value);
  require(!text || !text->empty(), "no text is empty");
  if (const auto* given = value.if_string()) {
    require(text.value_or("") == std::string_view(*given), "a text stays as it is");
    check_integer_text(*given);
    check_real_text(*given);
  }
  return 0;
}
