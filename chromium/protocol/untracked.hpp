#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/io_context.hpp>

/// How a held, idle browser lets io_context::run() return.
namespace vision::chromium {

/// `executor` without work tracking: a coroutine, socket or composed operation on it
/// does not count as work of the event loop. What it waits for still does: the one
/// operation that is pending at a time.
boost::asio::any_io_executor untracked(const boost::asio::any_io_executor& executor);

/// During its lifetime, the read that its coroutine awaits does not count as work
/// either. The coroutine and the socket must be on untracked(executor), so that the
/// read counts exactly once. Has an effect on an io_context's own executor and on its
/// strands; on any other executor a pending read remains work.
class UncountedRead {
 public:
  explicit UncountedRead(const boost::asio::any_io_executor& executor);
  ~UncountedRead();
  UncountedRead(const UncountedRead&) = delete;
  UncountedRead& operator=(const UncountedRead&) = delete;

 private:
  boost::asio::io_context* const context_;
};

}  // namespace vision::chromium
