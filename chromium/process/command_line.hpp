#pragma once

#include <string>
#include <vector>

#include "chromium/launch_options.hpp"

namespace vision::chromium {

/// Returns the path of a program: `name` itself if it contains a slash, else its first
/// match on PATH. Throws BrowserError, with the name, if there is no such program or
/// it is not executable.
std::string find_executable(const std::string& name);

/// Creates an empty directory that only this user can enter, for everything that the
/// browser writes.
std::string make_profile_directory();

/// The browser's arguments, beginning with the program.
std::vector<std::string> browser_arguments(const LaunchOptions& options, const std::string& executable,
                                           const std::string& profile);

/// This process's environment, without ANTHROPIC_API_KEY, and with the places to which
/// a browser writes besides its profile redirected into `profile`.
std::vector<std::string> browser_environment(const LaunchOptions& options, const std::string& profile);

}  // namespace vision::chromium
