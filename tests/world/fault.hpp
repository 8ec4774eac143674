#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

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
  cancel_before,  ///< the caller cancels inside the call, or before a turn of the event loop
  cancel_during,
  cancel_first,    ///< in the turn of completion, before it
  cancel_last,     ///< in the turn of completion, after it
  deadline_first,  ///< completes in the turn in which a time limit ends, before it
  deadline_last,   ///< the same, after it
  late,            ///< completes one tick after a time limit, deaf to cancellation
  fails,           ///< a file operation, or a job of the worker's
  cut,             ///< a write that takes half
  loop_ends,       ///< the event loop is destroyed after this turn with all that waits on it
};

enum class SeamKind : char {
  operation = 'o',
  call = 'c',
  timer = 't',
  file = 'f',
  write = 'w',
  worker_file = 'F',
  worker_write = 'W',
  turn = 'T',  ///< of the event loop: no seam, but a place for faults too
};

/// The faults that a seam of a kind is given.
const std::vector<Fault>& faults_of(SeamKind kind);

std::string name_of(Fault fault);

/// Faults by what they hit, "seam12" or "turn5", counted from 0.
using Plan = std::map<std::string, Fault>;

/// "seam12:hang,turn20:loop_ends", and "none" for no fault.
std::string to_text(const Plan& plan);
/// Throws std::invalid_argument for a text that is none.
Plan plan_from(std::string_view text);

}  // namespace vision::world
