// Whatever kind of value a model sends, a field is in its range or absent.
#include "vision/records/internal/coercion.hpp"
#include "fuzz/input.hpp"
#include "vision/records/errors.hpp"
#include "vision/text/internal/numbers.hpp"

namespace vision::fuzz {
void check(Input input) {
  const auto side = input.number<std::int64_t>();
  const boost::json::value value = input.value();
  const auto ratio = _norm_ratio(&value, side != 0 ? std::optional(side) : std::nullopt);
  const auto number = _opt_float(&value);
  require(!ratio || (*ratio >= 0 && *ratio <= 1), "a ratio is within the viewport");
  require(ratio.has_value() == (number && std::isfinite(*number)), "every finite number has a ratio");
  try {
    const auto whole = _opt_int(&value);
    const auto* integer = value.if_int64();
    const auto* real = value.if_double();
    require(!integer || whole == *integer, "an integer stays as it is");
    const bool fits = real && std::abs(*real) < 9e18;
    require(!fits || static_cast<double>(whole.value()) == std::trunc(*real), "a real is truncated");
    require(!whole || value.is_primitive(), "lists and maps have no integer");
  } catch (const ConversionError&) {
    require(value.is_double() && std::isinf(value.get_double()), "only an infinity is refused");
  }
  const auto text = _opt_str(&value);
  require(!text || !text->empty(), "a text is absent or not empty");
  const auto* given = value.if_string();
  if (!given) return;
  require(text.value_or("") == std::string_view(*given), "a text stays as it is");

  const std::string trimmed(text::trim(*given));
  const auto whole = text::parse_integer(*given);
  require(!whole || *whole == std::strtoll(trimmed.c_str(), nullptr, 10), "the C library reads the same integer");
  require(!whole || number, "an integer is also a real");
  if (!number) return;
  char* end = nullptr;
  const double expected = std::strtod(trimmed.c_str(), &end);
  require(end == trimmed.c_str() + trimmed.size(), "the C library reads all of it");
  require(std::isnan(*number) ? std::isnan(expected) : *number == expected, "the C library reads the same real");
}

}  // namespace vision::fuzz
