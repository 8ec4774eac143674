#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "vision/text/internal/base64.hpp"

/// The model's loosely typed tool input becomes typed, optional fields here. A
/// value of the wrong kind or a text that does not parse becomes absent. `v`
/// may be null, a pointer to nothing: a member that is missing, which like JSON
/// null means absent. Pure functions.
namespace vision {

/// A number as a real, a text as a decimal floating-point literal, a boolean as
/// 1.0 or 0.0. NaN and infinities pass.
std::optional<double> _opt_float(const boost::json::value* v);

/// A viewport ratio in [0, 1]. A value above 1.5 is taken for raw CSS pixels and
/// divided by `dim`, the viewport's size on that axis, when that is positive;
/// what is left outside [0, 1] is clamped. Absent when not finite.
std::optional<double> _norm_ratio(const boost::json::value* v, std::optional<std::int64_t> dim);

/// An integer, a real truncated toward zero, a boolean as 1 or 0, a text as a
/// base-10 integer literal. A value beyond 64 bits becomes the nearest
/// representable one; NaN becomes absent. Throws ConversionError for an infinity.
std::optional<std::int64_t> _opt_int(const boost::json::value* v);

/// A text unchanged; absent when it is empty. Other values in their
/// text::plain_text form.
std::optional<std::string> _opt_str(const boost::json::value* v);

}  // namespace vision
