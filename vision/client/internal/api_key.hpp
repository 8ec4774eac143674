#pragma once

#include <string>

namespace vision::detail {

/// The API key: `given`, else what the host registry's resolve_api_key returns
/// (its errors are ignored), else ANTHROPIC_API_KEY; the first that is not
/// empty. Throws std::runtime_error when there is none.
std::string resolve_api_key(const std::string& given);

}  // namespace vision::detail
