#include "chromium/process/command_line.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "chromium/errors.hpp"

namespace vision::chromium {
namespace {

std::string environment_variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

bool is_program(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

bool is_directory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::string find_executable(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    if (is_program(name)) return name;
    throw BrowserError("no browser to launch: " + name + " is missing or not executable");
  }
  std::string path = environment_variable("PATH");
  if (path.empty()) path = "/usr/local/bin:/usr/bin:/bin";
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find(':', start), path.size());
    const std::string candidate = path.substr(start, end - start) + "/" + name;
    if (candidate.front() == '/' && is_program(candidate)) return candidate;
    start = end + 1;
  }
  throw BrowserError("no browser to launch: \"" + name + "\" is not on PATH (" + path + ")");
}

std::string make_profile_directory() {
  // The browser binds a socket below this directory, and the path of a socket has at
  // most 107 bytes.
  constexpr std::size_t max_parent = 50;
  std::string parent = environment_variable("TMPDIR");
  if (parent.empty() || parent.front() != '/' || parent.size() > max_parent || !is_directory(parent)) parent = "/tmp";
  std::string path = parent + "/vision-chromium-XXXXXX";
  if (!::mkdtemp(path.data())) {
    throw std::system_error(errno, std::generic_category(), "cannot create a profile directory in " + parent);
  }
  return path;
}

std::vector<std::string> browser_arguments(const LaunchOptions& options, const std::string& executable,
                                           const std::string& profile) {
  std::vector<std::string> out{
      executable,
      "--remote-debugging-pipe",
      "--user-data-dir=" + profile,
      "--no-startup-window",
      "--no-first-run",
      "--no-default-browser-check",
      "--hide-scrollbars",
      "--mute-audio",
      "--password-store=basic",
      "--force-color-profile=srgb",
      "--disable-gpu",
      "--disable-search-engine-choice-screen",
      // Pages see the mouse that the library has, not the devices of this machine.
      "--blink-settings=primaryHoverType=2,availableHoverTypes=2,primaryPointerType=4,availablePointerTypes=4",
      "--disable-popup-blocking",  // which allows a page one window for each click
      // Pages must not slow down when they are not visible.
      "--disable-background-timer-throttling",
      "--disable-backgrounding-occluded-windows",
      "--disable-renderer-backgrounding",
      // No network traffic other than the pages' own.
      "--disable-background-networking",
      "--disable-breakpad",
      "--disable-client-side-phishing-detection",
      "--disable-component-extensions-with-background-pages",
      "--disable-component-update",
      "--disable-default-apps",
      "--disable-domain-reliability",
      "--disable-extensions",
      "--disable-features=MediaRouter,OptimizationHints,Translate",
      "--disable-quic",
      "--disable-sync",
      "--metrics-recording-only",
      "--no-pings",
  };
  if (options.headless()) out.emplace_back("--headless");
  if (::geteuid() == 0) out.emplace_back("--no-sandbox");  // it does not work as root
  out.insert(out.end(), options.arguments().begin(), options.arguments().end());
  return out;
}

std::vector<std::string> browser_environment(const LaunchOptions& options, const std::string& profile) {
  std::vector<std::string> out{"HOME=" + profile, "TMPDIR=" + profile};
  // The display's credentials are still in the real home.
  if (const auto home = environment_variable("HOME"); !home.empty() && environment_variable("XAUTHORITY").empty()) {
    out.push_back("XAUTHORITY=" + home + "/.Xauthority");
  }
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text = *entry;
    const std::string_view name = text.substr(0, text.find('='));
    if (name == "HOME" || name == "TMPDIR" || name == "XDG_CONFIG_HOME" || name == "XDG_CACHE_HOME") continue;
    if (name == "ANTHROPIC_API_KEY") continue;                      // pages' code runs in that process
    if (name == "XDG_RUNTIME_DIR" && options.headless()) continue;  // only a display needs it
    out.emplace_back(text);
  }
  return out;
}

}  // namespace vision::chromium
