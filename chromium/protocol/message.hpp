#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vision::chromium {

/// Parses a message from the browser. A page's strings can contain half a surrogate
/// pair, which the parser rejects: each half becomes U+FFFD. Throws BrowserError for
/// text that is not JSON, nests deeper than 256 levels, is larger than 8 MiB, or has
/// an object with more than 1000 members.
boost::json::value parse_message(std::string_view text);

/// The id at the start of a reply, readable even when the rest is not, so that its
/// command can fail at once instead of timing out.
std::optional<std::uint64_t> leading_id(std::string_view text);

}  // namespace vision::chromium
