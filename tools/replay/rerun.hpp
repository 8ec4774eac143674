#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vision/records/action_result.hpp"

namespace replay {

/// A recorded mission that was run again.
struct Rerun {
  std::string site, run;         ///< of the mission; the run may be empty
  vision::ActionResult verdict;  ///< of the new run
  std::size_t calls = 0;         ///< in the cassette
  double seconds = 0;            ///< of virtual time
  std::vector<std::string> differences;
};

/// Runs the mission of the cassette in `folder` again, in virtual time, on what was
/// recorded of page and model. Its records go to the shadow log. Replaces the process's
/// model registry. Throws std::runtime_error when there is no mission to run.
Rerun rerun(const std::string& folder);

}  // namespace replay
