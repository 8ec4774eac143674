#pragma once

#include <boost/json/value.hpp>
#include <boost/system/error_code.hpp>
#include <string_view>

namespace vision::text {

/// The value of a JSON text, which may nest 256 levels deep. Unlike the JSON
/// library's own parser it reads every real as the nearest double, and a surrogate
/// that is escaped without its partner as U+FFFD. `error` says what no JSON has.
boost::json::value read_json(std::string_view json, boost::system::error_code& error);

}  // namespace vision::text
