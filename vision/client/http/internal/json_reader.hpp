#pragma once

#include <boost/json/value.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <string_view>

namespace vision::detail::http {

/// What a response may hold; more is refused before it costs much.
constexpr std::size_t max_json_depth = 64, max_json_members = 256;

/// Parses a whole JSON text into one memory resource that the value owns. Reals
/// are read exactly: the nearest double, an infinity or zero beyond its range.
/// Errors are Boost.JSON's: too_deep, object_too_large, incomplete, syntax and
/// others; the value is null then.
boost::json::value read_json(std::string_view text, boost::system::error_code& error);

}  // namespace vision::detail::http
