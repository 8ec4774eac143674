#pragma once

#include <string>
#include <string_view>

namespace vision::detail {

/// The API key: `given`, else what the host registry's resolve_api_key returns
/// (its errors are ignored), else ANTHROPIC_API_KEY; the first that is not empty,
/// checked by clean_api_key. Throws std::runtime_error when all are empty.
std::string resolve_api_key(const std::string& given);

/// `key` without the white space around it. Throws std::invalid_argument when
/// nothing is left, or when anything but visible ASCII is. The message names
/// `source` ("the environment variable ANTHROPIC_API_KEY") and does not show the
/// key.
std::string clean_api_key(std::string_view key, std::string_view source);

}  // namespace vision::detail
