#pragma once

#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <memory>
#include <string>

#include "chromium/launch_options.hpp"
#include "chromium/protocol/unshared.hpp"

namespace vision::chromium {

/// A running browser with everything that belongs to it: its processes and its
/// profile directory. The browser's parent is a small supervisor process, which ends
/// the browser and removes the directory when this object or this whole process goes,
/// however that happens. A child that this process forks can do nothing to the browser:
/// there, stop() and the destructor only let go of it.
class BrowserProcess {
 public:
  /// Starts the browser in a process group of its own. Throws BrowserError or
  /// system_error if it cannot be started.
  BrowserProcess(const boost::asio::any_io_executor& executor, const LaunchOptions& options);
  /// Kills the browser if it still runs, and blocks until it has ended: for about a
  /// tenth of a second, or about ten seconds if one of its processes cannot be killed.
  ~BrowserProcess();
  BrowserProcess(const BrowserProcess&) = delete;
  BrowserProcess& operator=(const BrowserProcess&) = delete;

  /// Our end of the DevTools pipe. Must be called only once.
  Unshared<boost::asio::local::stream_protocol::socket> take_pipe();

  /// The end of what the browser has written to its standard error.
  const std::string& stderr_tail() const;

  /// Waits for the browser, whose pipe must have been closed, to exit; kills it if it
  /// does not. Nothing of it is left afterwards. Idempotent.
  boost::asio::awaitable<void> stop();

 private:
  using Socket = Unshared<boost::asio::local::stream_protocol::socket>;
  class Descriptors;
  class StderrReader;
  bool is_ours() const noexcept;
  void spawn(const LaunchOptions& options, const std::string& executable, Descriptors& ends);
  void end_supervisor() noexcept;
  void remove_profile() noexcept;

  std::string profile_;
  const pid_t owner_;
  Socket pipe_;
  Socket lifeline_;                                                  // the supervisor kills the browser when this ends
  Unshared<boost::asio::posix::stream_descriptor> supervisor_exit_;  // reaches its end when the supervisor exits
  std::shared_ptr<StderrReader> stderr_;
  pid_t supervisor_ = -1;  // leads the process group; -1 once it has been waited for
};

}  // namespace vision::chromium
