#pragma once

#include <string>
#include <vector>

#include "chromium/launch_options.hpp"

namespace vision::chromium {

/// The path of the program that `name` means: itself when it has a slash, else
/// the first match on PATH. Throws BrowserError naming it when there is no such
/// program or it may not be run.
std::string find_executable(const std::string& name);

/// A new empty directory that only this user can enter, for everything that the
/// browser writes.
std::string make_profile_directory();

/// The browser's arguments, the program first.
std::vector<std::string> browser_arguments(const LaunchOptions& options, const std::string& executable,
                                           const std::string& profile);

/// This process's environment with the places that a browser writes to besides
/// its profile led into `profile`.
std::vector<std::string> browser_environment(const LaunchOptions& options, const std::string& profile);

}  // namespace vision::chromium
