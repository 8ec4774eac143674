#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vision::chromium {

/// The JSON value of a message from the browser. Strings of a page may hold half
/// a surrogate pair, which the parser refuses: each becomes U+FFFD. Throws
/// BrowserError for text that is not JSON or nests deeper than 256.
boost::json::value parse_message(std::string_view text);

/// The id that an unreadable answer begins with, so that at least its command
/// fails at once.
std::optional<std::uint64_t> leading_id(std::string_view text);

}  // namespace vision::chromium
