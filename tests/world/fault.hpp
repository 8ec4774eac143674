#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

namespace vision::world {

/// What can be done to a seam, a place where the library meets something that may
/// fail or suspend.
enum class Fault {
  none,
  connection_error,  ///< the vendor's transport kinds, delivered after the latency
  rate_limit,
  server_error,
  bad_request,  ///< the vendor's other kinds
  page_error,   ///< the page driver's own kind; carries the mark of the agent's errors
  plain_error,  ///< a std::exception
  odd_error,    ///< what is no std::exception
  own_abort,    ///< operation_aborted that nobody asked for
  call_throws,  ///< before there is an awaitable
  call_throws_odd,
  hang,           ///< until it is cancelled; a file operation for an hour
  stubborn,       ///< hangs; when cancelled, resets that, cleans up a while and gives its value
  cancel_before,  ///< the caller cancels inside the call
  cancel_during,
  cancel_first,    ///< in the turn of completion, before it
  cancel_last,     ///< in the turn of completion, after it
  deadline_first,  ///< completes in the turn in which a time limit ends, before it
  deadline_last,   ///< the same, after it
  late,            ///< completes one tick after a time limit, deaf to cancellation
  fails,           ///< a file operation
  cut,             ///< a write that takes half
};

enum class SeamKind { operation, call, file, worker_file, write, worker_write, timer };

/// The faults that a seam of a kind is given.
std::span<const Fault> faults_of(SeamKind kind);

std::string_view name_of(Fault fault);
/// Throws std::invalid_argument for a name that is none.
Fault fault_named(std::string_view name);

/// Faults by the number of the seam that they hit.
using Plan = std::map<int, Fault>;

/// "seam12:hang,seam20:cut", and "none" for no fault.
std::string to_text(const Plan& plan);
Plan plan_from(std::string_view text);

}  // namespace vision::world
