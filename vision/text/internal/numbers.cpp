#include "vision/text/internal/numbers.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "vision/text/internal/utf8.hpp"

namespace vision::text {
namespace {

const char* non_finite(double value) {
  if (std::isnan(value)) return "nan";
  return value < 0 ? "-inf" : "inf";
}

// from_chars leaves the value alone when it is out of range; strtod in the C
// locale then tells overflow from underflow.
double out_of_range_real(const std::string& literal) {
  static const locale_t c_locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return ::strtod_l(literal.c_str(), nullptr, c_locale);
}

bool strip_sign(std::string_view& text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  return negative;
}

}  // namespace

std::string shortest(double value) {
  if (!std::isfinite(value)) return non_finite(value);
  std::array<char, 32> buffer;
  const auto end =
      std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::scientific).ptr;
  std::string_view form(buffer.data(), static_cast<std::size_t>(end - buffer.data()));

  std::string out;
  if (strip_sign(form)) out += '-';
  const std::size_t e = form.find('e');
  int exponent = 0;
  const char* exponent_text = form.data() + e + 1;
  if (*exponent_text == '+') ++exponent_text;
  std::from_chars(exponent_text, form.data() + form.size(), exponent);

  std::string digits(form.substr(0, 1));
  if (e > 2) digits += form.substr(2, e - 2);
  const auto point = static_cast<std::size_t>(std::abs(exponent));
  if (exponent < -4 || exponent > 15) {
    out += digits[0];
    if (digits.size() > 1) out.append(".").append(digits, 1);
    out.append(exponent < 0 ? "e-" : "e+").append(point < 10 ? "0" : "").append(std::to_string(point));
  } else if (exponent < 0) {
    out.append("0.").append(point - 1, '0').append(digits);
  } else {
    if (digits.size() < point + 2) digits.append(point + 2 - digits.size(), '0');
    out.append(digits, 0, point + 1).append(".").append(digits, point + 1);
  }
  return out;
}

std::string fixed(double value, int digits) {
  if (!std::isfinite(value)) return non_finite(value);
  std::array<char, 352> buffer;  // 309 digits before the point at most
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed,
                                 std::clamp(digits, 0, 6))
                       .ptr;
  return std::string(buffer.data(), end);
}

std::optional<double> parse_real(std::string_view text) {
  text = trim(text);
  const bool negative = strip_sign(text);
  if (text.empty() || text.front() == '-' || text.find('(') != std::string_view::npos) return {};
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (end != text.data() + text.size() || error == std::errc::invalid_argument) return {};
  if (error == std::errc::result_out_of_range) value = out_of_range_real(std::string(text));
  return negative ? -value : value;
}

std::optional<std::int64_t> parse_integer(std::string_view text) {
  text = trim(text);
  const bool negative = strip_sign(text);
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  if (text.empty() || !std::all_of(text.begin(), text.end(), is_digit)) return {};
  const std::string literal = (negative ? "-" : "") + std::string(text);
  std::int64_t value = 0;
  const auto error = std::from_chars(literal.data(), literal.data() + literal.size(), value).ec;
  using limits = std::numeric_limits<std::int64_t>;
  if (error == std::errc::result_out_of_range) return negative ? limits::min() : limits::max();
  return value;
}

std::int64_t truncate(double value) noexcept {
  using limits = std::numeric_limits<std::int64_t>;
  constexpr double bound = 9223372036854775808.0;  // 2^63, exact
  if (value >= bound) return limits::max();
  if (value < -bound) return limits::min();
  return static_cast<std::int64_t>(value);
}

}  // namespace vision::text
