#pragma once

#include <cxxabi.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace vision::c {

/// Holds an event loop's thread still once the process exits. What static objects and
/// other libraries' exit handlers destroy is in use on that thread: it must not run on
/// beside them, and cannot be waited for, because a callback of the host's may be in it
/// that waits for the exiting thread.
class ExitGate {
 public:
  /// `wake` makes the thread pass soon.
  explicit ExitGate(std::function<void()> wake);
  ~ExitGate();
  ExitGate(const ExitGate&) = delete;
  ExitGate& operator=(const ExitGate&) = delete;

  ///@{
  /// On the loop's thread: when it begins, between two handlers, when it ends.
  void begin();
  void pass();
  void end();
  ///@}

 private:
  friend class HostCode;
  friend struct Exit;
  void leave();
  void enter();
  void close();

  const std::function<void()> wake_;
  const int process_;  // a forked child has the object and not the thread
  std::mutex mutex_;
  std::condition_variable left_;
  bool inside_ = false, closed_ = false;
};

/// While it lives the calling thread runs code of the host's. On a loop's thread the
/// process may exit meanwhile; on others, and inside another one, it does nothing.
class HostCode {
 public:
  HostCode();
  ~HostCode();
  HostCode(const HostCode&) = delete;
  HostCode& operator=(const HostCode&) = delete;

 private:
  ExitGate* const gate_;
};

/// Never returns: the calling thread waits for the end of the process.
[[noreturn]] void stand_still() noexcept;

/// Calls a function of the host's, if there is one. An interpreter that is being shut
/// down ends the threads that call into it; ours must not be unwound from there.
template <class... Parameters, class... Arguments>
void call_host(void (*function)(Parameters...), Arguments... arguments) {
  if (!function) return;
  const HostCode host_code;
  try {
    function(arguments...);
  } catch (const abi::__forced_unwind&) {
    stand_still();
  }
}

}  // namespace vision::c
