#pragma once

#include <string>

namespace vision::text {

/// Whether `host`, a name or address as written in a URL (an IPv6 address with or
/// without brackets), is this machine whatever a resolver says: "localhost",
/// 127.0.0.0/8 or ::1.
bool is_loopback(const std::string& host);

}  // namespace vision::text
