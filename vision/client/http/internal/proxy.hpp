#pragma once

#include <string>

namespace vision::detail::http {

/// What is wrong with the proxy URL in the environment that a request would use, with the
/// variable's name and nothing of its value: libcurl's own words quote such a URL whole,
/// or a part of its password as a host or a port. Empty when nothing is.
std::string proxy_fault(bool is_tls);

}  // namespace vision::detail::http
