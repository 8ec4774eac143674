#include "chromium/protocol/unshared.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <system_error>

namespace vision::chromium {
namespace {

// Held while any thread forks.
constinit std::mutex mutex;

// A child closes nothing but replaces: the objects that own the descriptors live on
// there, and would close a number that is another file's by then. The replacement is
// also none of the files that the parent's epoll set knows, which parent and child
// share until notify_fork().
struct Covered {
  std::set<int> descriptors;
  int dead = -1;  // open while there are any
};

// Never destroyed: static objects may still hold browsers. Called with the mutex held.
Covered& covered() {
  static auto& instance = *new Covered;
  return instance;
}

void before_fork() {
  mutex.lock();
}

void after_fork() {
  mutex.unlock();
}

void after_fork_in_child() {
  const Covered& all = covered();
  for (const int descriptor : all.descriptors) ::dup3(all.dead, descriptor, O_CLOEXEC);
  mutex.unlock();
}

[[maybe_unused]] const int fork_handlers = ::pthread_atfork(before_fork, after_fork, after_fork_in_child);

int open_dead_socket() {
  std::array<int, 2> pair;
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  ::close(pair[1]);
  return pair[0];
}

}  // namespace

NoFork::NoFork() : lock_(mutex) {}

DeadInChild::DeadInChild(int descriptor, const NoFork&) : descriptor_(descriptor) {
  Covered& all = covered();
  if (all.descriptors.empty()) all.dead = open_dead_socket();
  all.descriptors.insert(descriptor);
}

void DeadInChild::reset() noexcept {
  if (descriptor_ < 0) return;
  const NoFork lock;
  Covered& all = covered();
  all.descriptors.erase(std::exchange(descriptor_, -1));
  if (all.descriptors.empty()) ::close(std::exchange(all.dead, -1));
}

}  // namespace vision::chromium
