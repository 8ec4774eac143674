#include "vision/client/http/internal/live_drivers.hpp"

#include <pthread.h>

#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>

#include "vision/client/http/internal/curl_driver.hpp"

namespace vision::detail::http {
namespace {

struct LiveDrivers {
  std::mutex mutex;
  std::set<CurlDriver*> drivers;
  bool is_exiting = false;
};

// Never destroyed, as contexts may be destroyed later.
LiveDrivers& live() {
  static auto* const made = new LiveDrivers;
  return *made;
}

void tell_drivers() {
  const std::lock_guard lock(live().mutex);
  live().is_exiting = true;
  for (CurlDriver* const driver : live().drivers) driver->process_exits();
}

}  // namespace

void add_live_driver(CurlDriver* driver) {
  const std::lock_guard lock(live().mutex);
  live().drivers.insert(driver);
  if (live().is_exiting) driver->process_exits();
}

void remove_live_driver(CurlDriver* driver) noexcept {
  const std::lock_guard lock(live().mutex);
  live().drivers.erase(driver);
}

void watch_for_exit() {
  // A child that exits must not find the mutex held by a thread that it does not have.
  const auto unlock = [] { live().mutex.unlock(); };
  if (::pthread_atfork([] { live().mutex.lock(); }, unlock, unlock) != 0 || std::atexit(tell_drivers) != 0) {
    throw std::runtime_error("no exit handler can be registered");
  }
}

}  // namespace vision::detail::http
