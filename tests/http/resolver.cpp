#include "tests/http/resolver.hpp"

#include <dlfcn.h>
#include <netdb.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

namespace vision::test {
namespace {

std::mutex mutex;
std::condition_variable changed;
std::function<void()> on_query;  // set while the resolver is stuck
int waiting = 0;

}  // namespace

StuckResolver::StuckResolver(std::function<void()> callback) {
  const std::lock_guard lock(mutex);
  on_query = std::move(callback);
}

StuckResolver::~StuckResolver() {
  std::unique_lock lock(mutex);
  on_query = nullptr;
  changed.notify_all();
  changed.wait(lock, [] { return waiting == 0; });
}

int resolve_stuck() {
  std::unique_lock lock(mutex);
  if (!on_query) return EAI_AGAIN;
  ++waiting;
  on_query();
  changed.wait(lock, [] { return !on_query; });
  --waiting;
  changed.notify_all();
  return EAI_AGAIN;
}

}  // namespace vision::test

// Takes the C library's place for the shared libraries of this program too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
  if (node && std::strcmp(node, "stuck.test") == 0) return vision::test::resolve_stuck();
  if (node && std::strcmp(node, "missing.test") == 0) return EAI_NONAME;
  static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  return next(node, service, hints, result);
}
