#pragma once

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/scripted.hpp"
#include "vision/client/api_error.hpp"

/// @file
/// What can be done to the library, and where.
namespace vision::world {

/// Where a fault can strike. One place can be several of these at once: a write on
/// the worker thread is a `file`, a `write` and a `worker`.
namespace place {
enum Kind : unsigned {
  operation = 1,  ///< of the page, the model or the host's code; may suspend
  call = 2,       ///< the same, but never suspends
  timer = 4,      ///< of the library
  file = 8,       ///< a system call on a file, or the end of a job on the worker thread
  write = 16,
  worker = 32,
  turn = 64,  ///< of the event loop
  on_loop = operation | call | timer | file | turn,
};
}  // namespace place

struct Fault {
  std::string_view name;
  unsigned places;                                                 ///< a union of place::Kind
  std::exception_ptr (*make_error)(const std::string&) = nullptr;  ///< what it throws
  bool is_transport_error = false;

  constexpr bool operator==(const Fault& other) const { return name == other.name; }
};

template <class E>
std::exception_ptr make_error(const std::string& text) {
  if constexpr (std::is_base_of_v<APIStatusError, E>) {
    return std::make_exception_ptr(E(text, {500, "", "r"}));
  } else if constexpr (std::is_same_v<E, boost::system::system_error>) {
    return std::make_exception_ptr(E(boost::asio::error::operation_aborted));
  } else if constexpr (std::is_same_v<E, int>) {
    return std::make_exception_ptr(42);
  } else {
    return std::make_exception_ptr(E(text));
  }
}

using namespace place;
constexpr Fault faults[] = {
    {"none", 0},
    // Errors, delivered after the latency: the vendor's kinds, the page driver's own, a
    // standard one, one that is not a std::exception, and an abort nobody requested.
    {"connection_error", operation, make_error<APIConnectionError>, true},
    {"rate_limit", operation, make_error<RateLimitError>, true},
    {"server_error", operation, make_error<InternalServerError>, true},
    {"bad_request", operation, make_error<BadRequestError>},
    {"page_error", operation, make_error<test::HostError>},
    {"plain_error", operation, make_error<std::logic_error>},
    {"odd_error", operation, make_error<int>},
    {"own_abort", operation, make_error<boost::system::system_error>},
    // Errors before there is an awaitable.
    {"call_throws", operation | call, make_error<std::logic_error>},
    {"call_throws_odd", operation | call, make_error<int>},
    // Hangs until it is cancelled; on the worker thread for an hour.
    {"hang", operation | worker},
    // Hangs; when cancelled it resets its cancellation state, cleans up and returns its value.
    {"stubborn", operation},
    // The caller cancels within the call or before the turn; in the middle; in the turn of
    // completion, before and after it.
    {"cancel_before", on_loop},
    {"cancel_during", operation | timer},
    {"cancel_first", operation | timer},
    {"cancel_last", operation | timer},
    // Completes in the turn in which a time limit ends, before and after it; or a tick
    // later, deaf to its cancellation.
    {"deadline_first", operation},
    {"deadline_last", operation},
    {"late", operation},
    // A system call fails; a write takes half of its bytes.
    {"fails", file},
    {"cut", write},
    // The event loop is destroyed after this turn, with all that waits on it.
    {"loop_ends", on_loop},
};

/// Throws std::invalid_argument when there is no fault of that name.
constexpr Fault fault_named(std::string_view name) {
  for (const Fault& fault : faults)
    if (fault.name == name) return fault;
  throw std::invalid_argument("no fault is named \"" + std::string(name) + "\"");
}
/// The same, checked by the compiler.
consteval Fault operator""_fault(const char* name, std::size_t size) {
  return fault_named({name, size});
}

/// The faults that can strike at `places`, a union of place::Kind.
inline std::vector<Fault> faults_at(unsigned places) {
  std::vector<Fault> found;
  for (const Fault& fault : faults)
    if ((fault.places & places) != 0) found.push_back(fault);
  return found;
}

}  // namespace vision::world
