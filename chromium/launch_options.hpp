#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace vision::chromium {

/// Parameters of launch().
class LaunchOptions {
 public:
  LaunchOptions() {}
  /// The browser: a path, or a name to look up on PATH. Default "chromium".
  LaunchOptions& executable(std::string value) & {
    executable_ = std::move(value);
    return *this;
  }
  /// Whether to run without windows on a screen. Default true.
  LaunchOptions& headless(bool value) & {
    headless_ = value;
    return *this;
  }
  /// Adds a command-line argument for the browser, after those of this library.
  LaunchOptions& argument(std::string value) & {
    arguments_.push_back(std::move(value));
    return *this;
  }
  /// How long the browser may take to answer its first command. Default 60 s.
  LaunchOptions& launch_timeout(std::chrono::milliseconds value) & {
    launch_timeout_ = value;
    return *this;
  }
  /// How long each later command or page load may take. Default 30 s.
  LaunchOptions& command_timeout(std::chrono::milliseconds value) & {
    command_timeout_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  LaunchOptions executable(std::string value) && { return std::move(executable(std::move(value))); }
  LaunchOptions headless(bool value) && { return std::move(headless(value)); }
  LaunchOptions argument(std::string value) && { return std::move(argument(std::move(value))); }
  LaunchOptions launch_timeout(std::chrono::milliseconds value) && { return std::move(launch_timeout(value)); }
  LaunchOptions command_timeout(std::chrono::milliseconds value) && { return std::move(command_timeout(value)); }
  ///@}

  ///@{
  /// The value that was set, or the default.
  const std::string& executable() const noexcept { return executable_; }
  bool headless() const noexcept { return headless_; }
  const std::vector<std::string>& arguments() const noexcept { return arguments_; }
  std::chrono::milliseconds launch_timeout() const noexcept { return launch_timeout_; }
  std::chrono::milliseconds command_timeout() const noexcept { return command_timeout_; }
  ///@}

 private:
  std::string executable_ = "chromium";
  bool headless_ = true;
  std::vector<std::string> arguments_;
  std::chrono::milliseconds launch_timeout_{60'000};
  std::chrono::milliseconds command_timeout_{30'000};
};

/// Parameters of connect().
class ConnectOptions {
 public:
  ConnectOptions() {}
  /// How long connecting, a command or a page load may take. Default 30 s.
  ConnectOptions& command_timeout(std::chrono::milliseconds value) & {
    command_timeout_ = value;
    return *this;
  }
  /// Whether to accept a host other than this machine. The connection is neither
  /// encrypted nor authenticated. Default false.
  ConnectOptions& allow_remote(bool value) & {
    allow_remote_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  ConnectOptions command_timeout(std::chrono::milliseconds value) && { return std::move(command_timeout(value)); }
  ConnectOptions allow_remote(bool value) && { return std::move(allow_remote(value)); }
  ///@}

  ///@{
  /// The value that was set, or the default.
  std::chrono::milliseconds command_timeout() const noexcept { return command_timeout_; }
  bool allow_remote() const noexcept { return allow_remote_; }
  ///@}

 private:
  std::chrono::milliseconds command_timeout_{30'000};
  bool allow_remote_ = false;
};

/// Parameters of Browser::new_page().
class PageOptions {
 public:
  PageOptions() {}
  /// The viewport in CSS pixels, each side from 1 to 10,000,000; the page's screen and
  /// window have the same size. Default 1280 by 800.
  PageOptions& viewport(int width, int height) & {
    width_ = width;
    height_ = height;
    return *this;
  }
  /// Screenshot pixels per CSS pixel, above 0. Default 1.
  PageOptions& device_pixel_ratio(double value) & {
    device_pixel_ratio_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  PageOptions viewport(int width, int height) && { return std::move(viewport(width, height)); }
  PageOptions device_pixel_ratio(double value) && { return std::move(device_pixel_ratio(value)); }
  ///@}

  ///@{
  /// The value that was set, or the default.
  int width() const noexcept { return width_; }
  int height() const noexcept { return height_; }
  double device_pixel_ratio() const noexcept { return device_pixel_ratio_; }
  ///@}

 private:
  int width_ = 1280;
  int height_ = 800;
  double device_pixel_ratio_ = 1;
};

}  // namespace vision::chromium
