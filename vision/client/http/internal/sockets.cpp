#include "vision/client/http/internal/sockets.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <set>

namespace vision::detail::http {
namespace {

struct CloseFolder {
  void operator()(DIR* folder) const noexcept { ::closedir(folder); }
};

bool is_inheritable_local_socket(int fd) noexcept {
  int domain = 0;
  socklen_t size = sizeof domain;
  const int flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) == 0 && ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
         domain == AF_UNIX;
}

std::set<int> inheritable_local_sockets() noexcept {
  std::set<int> found;
  const std::unique_ptr<DIR, CloseFolder> folder(::opendir("/proc/self/fd"));
  while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && is_inheritable_local_socket(fd)) found.insert(fd);
  }
  return found;
}

// The kernel's struct: the C library's ends before what is asked for.
tcp_info info_of(int fd) noexcept {
  tcp_info info = {};
  socklen_t size = sizeof info;
  if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) info = {};
  return info;
}

int pending(int fd, unsigned long direction) noexcept {
  int bytes = 0;
  return ::ioctl(fd, direction, &bytes) == 0 ? bytes : 0;
}

}  // namespace

bool has_input(curl_socket_t fd) noexcept {
  pollfd connection = {fd, POLLIN, 0};
  return ::poll(&connection, 1, 0) > 0;
}

std::uint64_t received_bytes(curl_socket_t fd) noexcept {
  return info_of(fd).tcpi_bytes_received;
}

std::uint64_t unsent_bytes(curl_socket_t fd) noexcept {
  return info_of(fd).tcpi_notsent_bytes;
}

void break_stale(const std::vector<curl_socket_t>& idle) noexcept {
  for (const curl_socket_t fd : idle) {
    if (!has_input(fd)) continue;
    std::array<char, 1024> goodbye;
    (void)::recv(fd, goodbye.data(), goodbye.size(), MSG_DONTWAIT);
    ::shutdown(fd, SHUT_RDWR);
  }
}

// Nothing tells the other end's number. What is written to the one that is known can be
// read from the other, where libcurl never reads.
void keep_pair_from_programs(curl_socket_t end) noexcept {
  if (!is_inheritable_local_socket(end)) return;
  ::fcntl(end, F_SETFD, FD_CLOEXEC);
  const std::array<char, 8> mark = {'v', 'i', 's', 'i', 'o', 'n', '\0', '\1'};
  if (::send(end, mark.data(), mark.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(mark.size())) return;
  for (const int fd : inheritable_local_sockets()) {
    std::array<char, mark.size()> got = {};
    if (::recv(fd, got.data(), got.size(), MSG_PEEK | MSG_DONTWAIT) < 0 || got != mark) continue;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

// The handle's pair is among the sockets that are new, and is the one that its wake-up
// call uses. The byte stays unread: only curl_multi_poll, which is not called, reads it.
CURLM* make_multi() noexcept {
  const std::set<int> before = inheritable_local_sockets();
  CURLM* const multi = ::curl_multi_init();
  if (!multi || ::curl_multi_wakeup(multi) != CURLM_OK) return multi;
  for (const int fd : inheritable_local_sockets()) {
    if (before.contains(fd)) continue;
    if (pending(fd, SIOCINQ) > 0 || pending(fd, SIOCOUTQ) > 0) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  return multi;
}

}  // namespace vision::detail::http
