#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstddef>
#include <functional>

namespace vision::runtime {

/// How many jobs, of all contexts together, may be handed over and not finished.
constexpr std::size_t max_waiting_jobs = 64;

/// Runs blocking `job` on the library's worker thread, which the first call
/// starts, and completes on the calling coroutine's executor with the job's
/// error if it threw. Jobs run one after the other. Throws std::runtime_error, and
/// drops the job, when max_waiting_jobs are there already: a disk that has stopped
/// must not collect the memory of everything that is to be written to it.
///
/// Cancellation (terminal) ends the wait at once; a job that was handed over
/// still runs to its end, so it must own all that it uses. The same holds when
/// the execution context is destroyed meanwhile. At process exit jobs are
/// dropped where they are. A child process made by fork has a worker of its own; what the
/// parent has handed over is done in the parent alone.
boost::asio::awaitable<void> run_on_worker(std::function<void()> job);

}  // namespace vision::runtime
