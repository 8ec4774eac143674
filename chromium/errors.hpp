#pragma once

#include <stdexcept>
#include <string>

#include "vision/text/named_error.hpp"

namespace vision::chromium {

/// The browser, the way to it or a page failed. Base of this driver's errors.
class BrowserError : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "BrowserError"; }
};

/// The page or the whole browser has ended; nothing can be done with it again.
class PageClosedError : public BrowserError {
 public:
  /// `cause`, if any, follows in parentheses.
  explicit PageClosedError(const std::string& cause = {})
      : BrowserError("Target page, context or browser has been closed" + (cause.empty() ? cause : " (" + cause + ")")) {
  }
  const char* kind_name() const noexcept override { return "PageClosedError"; }
};

/// The page's renderer process died. Only navigating or closing the page helps.
class PageCrashedError : public BrowserError {
 public:
  PageCrashedError() : BrowserError("Page crashed") {}
  const char* kind_name() const noexcept override { return "PageCrashedError"; }
};

/// The browser refused a command.
class ProtocolError : public BrowserError {
 public:
  /// `method` is the command refused; `code` and `message` are the browser's.
  ProtocolError(const std::string& method, int code, const std::string& message)
      : BrowserError(method + ": " + message + " (" + std::to_string(code) + ")"), code_(code), message_(message) {}
  const char* kind_name() const noexcept override { return "ProtocolError"; }
  /// The browser's error number.
  int code() const noexcept { return code_; }
  /// The browser's own words.
  const std::string& browser_message() const noexcept { return message_; }

 private:
  int code_;
  std::string message_;
};

/// No answer came within the time limit of a command or of a page load. Its kind
/// name is "TimeoutError".
class CommandTimeout : public BrowserError {
 public:
  /// `what` was waited for, `limit_ms` milliseconds long.
  CommandTimeout(const std::string& what, long long limit_ms)
      : BrowserError(what + ": Timeout " + std::to_string(limit_ms) + "ms exceeded") {}
  const char* kind_name() const noexcept override { return "TimeoutError"; }
};

/// A script threw. The message is the thrown error's name and message, or the
/// thrown value.
class EvaluationError : public BrowserError {
 public:
  using BrowserError::BrowserError;
  const char* kind_name() const noexcept override { return "EvaluationError"; }
};

/// A page could not be loaded; the message holds the URL and the browser's code.
class NavigationError : public BrowserError {
 public:
  using BrowserError::BrowserError;
  const char* kind_name() const noexcept override { return "NavigationError"; }
};

}  // namespace vision::chromium
