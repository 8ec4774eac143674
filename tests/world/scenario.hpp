#pragma once

#include <string>
#include <vector>

#include "vision/client/vision_client.hpp"
#include "vision/runtime/time.hpp"

namespace vision::world {

using namespace std::chrono_literals;
using runtime::Duration;
struct Caller;

constexpr Duration never = 24h * 365 * 50;

/// A way to use the library.
struct Mode {
  boost::asio::awaitable<void> (*use)(Caller&, VisionClient&);
  Duration longest;               ///< it may take (act loop: each step); generous for what only the host bounds
  Duration step_limit = never;    ///< the library's own, for a screenshot and the question about it
  bool retries_transport = true;  ///< unless the scenario says otherwise
  bool throws_host_errors = false, throws_budget = false;

  bool operator==(const Mode& other) const { return use == other.use; }
};
namespace modes {
extern const Mode act_loop, shadow, observer, wrapper, act, ask;
}

/// What the model answers to one call. Besides the verbs: "no_tool" (an answer
/// without a tool call) and "broken" (not an answer).
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
  const Mode& mode;
  std::string name;
  std::vector<Answer> answers;
  Details with = {};
};

/// Together they reach every way in which a mode can end, and every rail.
const std::vector<Scenario>& scenarios();

}  // namespace vision::world
