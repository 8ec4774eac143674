#include "bindings/c/exit_gate.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "vision/client/http/internal/endpoint.hpp"

// The linker puts this in the place of __cxa_atexit. Objects of static storage that a
// first use makes would be destroyed before the gate closes, their destructors having been
// registered after it, under a thread that uses them: here none is ever destroyed. What
// is registered by std::atexit has no object, and stays.
extern "C" int __real___cxa_atexit(void (*function)(void*), void* object, void* library);
extern "C" int __wrap___cxa_atexit(void (*function)(void*), void* object, void* library) {
  return object ? 0 : __real___cxa_atexit(function, object, library);
}

namespace vision::c {
namespace {

thread_local ExitGate* gate_of_this_thread = nullptr;

}  // namespace

struct Exit {
  std::mutex mutex;
  std::set<ExitGate*> gates;

  // Its handler runs before that of OpenSSL, which libcurl has registered by then.
  static Exit& instance() {
    static Exit* const made = [] {
      detail::http::initialise_libcurl();
      if (std::atexit(close_gates) != 0) throw std::runtime_error("no exit handler can be registered");
      return new Exit;
    }();
    return *made;
  }

  static void close_gates() {
    Exit& self = instance();
    const std::lock_guard lock(self.mutex);
    for (ExitGate* const gate : self.gates) gate->close();
  }
};

ExitGate::ExitGate(std::function<void()> wake) : wake_(std::move(wake)), process_(::getpid()) {
  const std::lock_guard lock(Exit::instance().mutex);
  Exit::instance().gates.insert(this);
}

ExitGate::~ExitGate() {
  const std::lock_guard lock(Exit::instance().mutex);
  Exit::instance().gates.erase(this);
}

void ExitGate::begin() {
  gate_of_this_thread = this;
  enter();
}

void ExitGate::pass() {
  leave();
  enter();
}

void ExitGate::end() {
  leave();
  gate_of_this_thread = nullptr;
}

void ExitGate::enter() {
  std::unique_lock lock(mutex_);
  if (closed_) {
    lock.unlock();
    stand_still();
  }
  inside_ = true;
}

void ExitGate::leave() {
  const std::lock_guard lock(mutex_);
  inside_ = false;
  left_.notify_all();
}

// A turn takes milliseconds. One that is stuck, behind a callback of another loop's,
// must not keep the process from ending.
void ExitGate::close() {
  constexpr std::chrono::seconds patience(2);
  if (process_ != ::getpid()) return;
  std::unique_lock lock(mutex_);
  closed_ = true;
  lock.unlock();
  wake_();
  lock.lock();
  left_.wait_for(lock, patience, [this] { return !inside_; });
}

HostCode::HostCode() : gate_(std::exchange(gate_of_this_thread, nullptr)) {
  if (gate_) gate_->leave();
}

HostCode::~HostCode() {
  if (!gate_) return;
  gate_of_this_thread = gate_;
  gate_->enter();
}

void stand_still() noexcept {
  for (;;) ::pause();
}

}  // namespace vision::c
