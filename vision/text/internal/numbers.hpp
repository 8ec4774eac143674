#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The text forms of numbers that records, requests and messages use, and the
/// way back. Independent of the locale.
namespace vision::text {

/// The shortest decimal form that reads back to the same double: positional
/// with at least one digit after the point ("2.0", "0.85", "1234.5") while the
/// decimal exponent is from -4 to 15, else with an exponent of a sign and at
/// least two digits ("1e-05", "1.5e+16"). "nan", "inf" and "-inf" for the rest.
std::string shortest(double value);

/// Fixed-point with exactly `digits` digits (0 to 6) after the point: the exact
/// value of the double rounded to nearest, ties to even (1.25 with one digit is
/// "1.2"). "nan", "inf" and "-inf" for the rest.
std::string fixed(double value, int digits);

/// Reads a decimal floating-point literal: white space around it, a sign, a
/// fraction and an exponent allowed, as are "inf", "infinity" and "nan" in any
/// case. A literal beyond the range of double gives an infinity or zero, as
/// strtod does. Absent for anything else: hexadecimal, "nan(1)", trailing text,
/// the empty text.
std::optional<double> parse_real(std::string_view text);

/// Reads a base-10 integer literal: white space around it and a sign allowed.
/// Absent for anything else, fractions and exponents included. A value beyond
/// 64 bits gives the nearest representable one.
std::optional<std::int64_t> parse_integer(std::string_view text);

/// `value` truncated toward zero; beyond 64 bits the nearest representable
/// integer. `value` must not be NaN.
std::int64_t truncate(double value) noexcept;

}  // namespace vision::text
