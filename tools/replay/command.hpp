#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace replay {

/// Adds `vision replay` to the program. The function runs it once the command line has
/// been parsed, and returns the exit status: 0 when the mission went as recorded (with
/// --model: when every request was answered), 1 when not. It throws std::exception for a
/// cassette that cannot be used.
std::function<int()> add_command(CLI::App& app);

}  // namespace replay
