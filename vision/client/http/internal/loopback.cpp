#include "vision/client/http/internal/loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

namespace vision::text {

bool is_loopback(const std::string& host) {
  if (::strcasecmp(host.c_str(), "localhost") == 0) return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const std::string address = bracketed ? host.substr(1, host.size() - 2) : host;
  in6_addr v6{};
  return ::inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace vision::text
