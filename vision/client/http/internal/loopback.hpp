#pragma once

#include <string>

namespace vision::text {

/// Whether `host`, a name or an address as a URL has it (an IPv6 address with or
/// without its brackets), is this machine whatever a resolver says: "localhost",
/// 127.0.0.0/8 or ::1.
bool is_loopback(const std::string& host);

}  // namespace vision::text
