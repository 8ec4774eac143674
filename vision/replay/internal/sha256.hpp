#pragma once

#include <string>
#include <string_view>

namespace vision::detail {

/// The SHA-256 of `data` as 64 hexadecimal digits in lower case.
std::string sha256(std::string_view data);

}  // namespace vision::detail
