#pragma once

#include <boost/json/value.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <string_view>

namespace vision::text {

/// What a JSON text may hold; more is refused before it costs much.
struct JsonLimits {
  std::size_t depth;    ///< levels of nesting
  std::size_t members;  ///< of an object
};

/// Parses a whole JSON text into one memory resource that the value owns. Reals are
/// read exactly: the nearest double, an infinity or zero beyond its range. Errors are
/// Boost.JSON's: too_deep, object_too_large, incomplete, syntax and others; the value
/// is null then.
boost::json::value read_json(std::string_view text, JsonLimits limits, boost::system::error_code& error);

/// The same for what a program in JavaScript wrote, whose texts may hold one half of a
/// surrogate pair: each becomes U+FFFD.
boost::json::value read_javascript(std::string_view text, JsonLimits limits, boost::system::error_code& error);

}  // namespace vision::text
