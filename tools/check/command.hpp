#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace check {

/// Adds `vision check` to the program. The function runs it once the command line has
/// been parsed, and returns the exit status: 0 without a failure, 1 with one. It throws
/// InputError for bad input.
std::function<int()> add_command(CLI::App& app);

}  // namespace check
