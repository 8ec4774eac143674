#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vision::world {

/// What can be done to a seam, a place where the library meets something that may
/// fail or suspend; with the kinds of seams that are given it.
#define VISION_WORLD_FAULTS(X)                                                                                 \
  X(none, "")                                                                                                  \
  X(connection_error, "o") /* the vendor's transport kinds, delivered after the latency */                     \
  X(rate_limit, "o")                                                                                           \
  X(server_error, "o")                                                                                         \
  X(bad_request, "o")  /* the vendor's other kinds */                                                          \
  X(page_error, "o")   /* the page driver's own kind; carries the mark of the agent's errors */                \
  X(plain_error, "o")  /* a std::exception */                                                                  \
  X(odd_error, "o")    /* what is no std::exception */                                                         \
  X(own_abort, "o")    /* operation_aborted that nobody asked for */                                           \
  X(call_throws, "oc") /* before there is an awaitable */                                                      \
  X(call_throws_odd, "oc")                                                                                     \
  X(hang, "oFW")               /* until it is cancelled; a file operation for an hour */                       \
  X(stubborn, "o")             /* hangs; when cancelled, resets that, cleans up a while and gives its value */ \
  X(cancel_before, "octfwFWT") /* the caller cancels inside the call, or before a turn of the loop */          \
  X(cancel_during, "ot")                                                                                       \
  X(cancel_first, "ot")    /* in the turn of completion, before it */                                          \
  X(cancel_last, "ot")     /* in the turn of completion, after it */                                           \
  X(deadline_first, "o")   /* completes in the turn in which a time limit ends, before it */                   \
  X(deadline_last, "o")    /* the same, after it */                                                            \
  X(late, "o")             /* a tick after a time limit, deaf to its cancellation */                           \
  X(fails, "fwFW")         /* a file operation, or a job of the worker's */                                    \
  X(cut, "wW")             /* a write that takes half */                                                       \
  X(loop_ends, "octfwFWT") /* the event loop is destroyed after this turn with all that waits on it */

#define VISION_WORLD_FAULT(name, kinds) name,
enum class Fault { VISION_WORLD_FAULTS(VISION_WORLD_FAULT) };
#undef VISION_WORLD_FAULT

std::string name_of(Fault fault);
/// Throws std::invalid_argument for a name that is none.
Fault fault_named(std::string_view name);

/// Places for faults: (o)perations and (c)alls of the parties, (t)imers, (f)ile
/// operations and (w)rites, in capitals those on the worker thread, and (T)urns of
/// the event loop.
using Kind = char;

/// The faults that a place of a kind is given.
const std::vector<Fault>& faults_of(Kind kind);

enum class Mode { act_loop, shadow, observer, wrapper, act, ask };

/// What the model answers to one call. Besides the verbs: "no_tool" (an answer
/// without a tool call) and "broken" (no answer at all).
struct Answer {
  std::string verb;
  double confidence = 0.9;
  std::string members = {};   ///< more members of the tool's input, as JSON text
  bool has_all_needs = true;  ///< false for a page action that cannot be carried out
  bool operator==(const Answer&) const = default;
};

/// What a scenario may have differently.
struct Details {
  bool fixtures = false;  ///< screenshots are stored
  bool hook = true;       ///< the client has an on_action hook
  bool high_stakes = false;
  std::int64_t budget = 50;
  std::int64_t max_steps = 8;   ///< act loop
  bool read_only = false;       ///< act loop
  int abort_at = 0;             ///< act loop: the probe that says yes, counted from 1
  double agent_seconds = 0.25;  ///< shadow mode
  int failing_runs = 1;         ///< wrapper: of the scripted step
  bool has_agent = true;        ///< wrapper
  bool transport_retry = true;  ///< ask
  bool unreadable_context = false;
};

/// One use of one mode by a host.
struct Scenario {
  Mode mode;
  std::string name;
  std::vector<Answer> answers;
  Details with = {};
};

/// Together they reach every way in which a mode can end, and every rail.
const std::vector<Scenario>& scenarios();

/// The same run gives the same trace.
struct Run {
  const Scenario* scenario = nullptr;  ///< null for a world of several missions and seeded faults
  /// Of latencies and scheduling; 0 for latencies of 100 ms, 1 for none. And how the
  /// caller cancels: by the terminal request, the total one or both, in turns.
  std::uint64_t seed = 0;
  std::string plan = {};  ///< faults and what they hit: "seam12:hang,turn20:loop_ends"
  bool prints_trace = false;
};

}  // namespace vision::world
