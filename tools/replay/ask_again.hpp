#pragma once

#include <cstddef>
#include <string>

namespace replay {

/// What ask_again() wrote.
struct Comparison {
  std::size_t asked = 0;   ///< requests
  std::size_t failed = 0;  ///< of these, without an answer of the new model
  std::size_t same = 0;    ///< with the action that was recorded
  std::string viewport;    ///< of the last picture, "1280x800"
  std::string log, fixtures;
};

/// Asks `model`, at the endpoint and with the key of the environment, what was asked in the
/// recording, and writes what `vision report` reads below `out`: miss-path records with the
/// new answer as vision's and the recorded one as the agent's, and their pictures. Replaces
/// the process's model registry. Throws std::runtime_error without recorded requests, and
/// what VisionClient's constructor throws.
Comparison ask_again(const std::string& folder, const std::string& model, const std::string& out);

}  // namespace replay
