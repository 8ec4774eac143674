#pragma once

#include <sys/types.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <memory>
#include <string>

#include "chromium/launch_options.hpp"

namespace vision::chromium {

/// A running browser and all that belongs to it: its processes and its profile
/// directory. A small supervisor, parent of the browser, ends the browser and
/// removes the directory when this object or this whole process goes, in
/// whatever way.
class BrowserProcess {
 public:
  /// Starts the browser in a process group of its own. Throws BrowserError when
  /// it cannot be started.
  BrowserProcess(const boost::asio::any_io_executor& executor, const LaunchOptions& options);
  /// Kills the browser when it still runs, and waits for its end: about a tenth
  /// of a second, and about ten seconds when something of it cannot be killed.
  ~BrowserProcess();
  BrowserProcess(const BrowserProcess&) = delete;
  BrowserProcess& operator=(const BrowserProcess&) = delete;

  /// Our end of the DevTools pipe. Once.
  boost::asio::local::stream_protocol::socket take_pipe() { return std::move(pipe_); }

  /// The end of what the browser wrote to its standard error.
  std::string last_words() const;

  /// Waits for the browser, whose pipe has been closed, to end by itself; kills
  /// it when it does not. Afterwards nothing of it is left.
  boost::asio::awaitable<void> stop();

 private:
  class Descriptors;
  class Words;
  void spawn(const LaunchOptions& options, const std::string& executable, Descriptors& theirs);
  void end_supervisor() noexcept;
  void remove_profile() noexcept;

  std::string profile_;
  boost::asio::local::stream_protocol::socket pipe_;
  boost::asio::posix::stream_descriptor lifeline_;  // the supervisor acts when this closes
  boost::asio::posix::stream_descriptor ended_;     // at its end when the supervisor has gone
  std::shared_ptr<Words> words_;
  pid_t supervisor_ = -1;  // leads the process group
};

}  // namespace vision::chromium
