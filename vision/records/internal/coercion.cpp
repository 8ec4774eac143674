#include "vision/records/internal/coercion.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vision/records/errors.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"

namespace vision {

using boost::json::kind;

std::optional<double> _opt_float(const boost::json::value* v) {
  if (!v) return {};
  switch (v->kind()) {
    case kind::bool_: return v->get_bool() ? 1.0 : 0.0;
    case kind::int64: return static_cast<double>(v->get_int64());
    case kind::uint64: return static_cast<double>(v->get_uint64());
    case kind::double_: return v->get_double();
    case kind::string: return text::parse_real(v->get_string());
    default: return {};
  }
}

std::optional<double> _norm_ratio(const boost::json::value* v, std::optional<std::int64_t> dim) {
  constexpr double largest_ratio = 1.5;  // a model's overshoot, not yet a pixel value
  const auto f = _opt_float(v);
  if (!f || !std::isfinite(*f)) return {};
  const bool is_pixels = *f > largest_ratio && dim && *dim > 0;
  return std::clamp(is_pixels ? *f / static_cast<double>(*dim) : *f, 0.0, 1.0);
}

std::optional<std::int64_t> _opt_int(const boost::json::value* v) {
  if (!v) return {};
  switch (v->kind()) {
    case kind::bool_: return v->get_bool() ? 1 : 0;
    case kind::int64: return v->get_int64();
    case kind::uint64:
      return static_cast<std::int64_t>(
          std::min<std::uint64_t>(v->get_uint64(), std::numeric_limits<std::int64_t>::max()));
    case kind::double_:
      if (std::isnan(v->get_double())) return {};
      if (std::isinf(v->get_double())) throw ConversionError("cannot convert an infinity to an integer");
      return text::truncate(v->get_double());
    case kind::string: return text::parse_integer(v->get_string());
    default: return {};
  }
}

std::optional<std::string> _opt_str(const boost::json::value* v) {
  if (!v || v->is_null()) return {};
  std::string text = text::plain_text(*v);
  if (text.empty()) return {};
  return text;
}

}  // namespace vision
