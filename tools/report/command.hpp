#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace report {

/// Adds `vision report` to the program. The function runs it once the command line
/// has been parsed, and returns the exit status: 0 when every site is PROMOTE, 1 when
/// one is not. It throws InputError for bad input, and
/// std::runtime_error when the report cannot be written.
std::function<int()> add_command(CLI::App& app);

}  // namespace report
