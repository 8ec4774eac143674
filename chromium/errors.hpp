#pragma once

#include <stdexcept>
#include <string>

#include "vision/text/named_error.hpp"

namespace vision::chromium {

/// The browser, the connection to it, or a page failed. Base class of this driver's
/// errors.
class BrowserError : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "BrowserError"; }
};

/// The page or the whole browser has ended, and cannot be used again.
class PageClosedError : public BrowserError {
 public:
  /// A `cause` that is not empty follows in parentheses.
  explicit PageClosedError(const std::string& cause = {})
      : BrowserError("Target page, context or browser has been closed" + (cause.empty() ? cause : " (" + cause + ")")) {
  }
  const char* kind_name() const noexcept override { return "PageClosedError"; }
};

/// The page's renderer process crashed. navigate() brings a new one; otherwise the
/// page can only be closed.
class PageCrashedError : public BrowserError {
 public:
  PageCrashedError() : BrowserError("Page crashed") {}
  const char* kind_name() const noexcept override { return "PageCrashedError"; }
};

/// The browser refused a command.
class ProtocolError : public BrowserError {
 public:
  /// `method` is the refused command; `code` and `message` come from the browser.
  ProtocolError(const std::string& method, int code, const std::string& message)
      : BrowserError(method + ": " + message + " (" + std::to_string(code) + ")"), code_(code), message_(message) {}
  const char* kind_name() const noexcept override { return "ProtocolError"; }
  /// The browser's error number.
  int code() const noexcept { return code_; }
  /// The browser's own message, as one line: control characters are escaped.
  const std::string& browser_message() const noexcept { return message_; }

 private:
  int code_;
  std::string message_;
};

/// A command or a page load took longer than its time limit. Its kind name is
/// "TimeoutError".
class CommandTimeout : public BrowserError {
 public:
  /// `what` took longer than `limit_ms` milliseconds. A `reason` that is not empty says
  /// what the browser may be waiting for.
  CommandTimeout(const std::string& what, long long limit_ms, const std::string& reason = {})
      : BrowserError(what + ": Timeout " + std::to_string(limit_ms) + "ms exceeded" +
                     (reason.empty() ? "" : "; " + reason)) {}
  const char* kind_name() const noexcept override { return "TimeoutError"; }
};

/// A script threw. The message is the name and message of the thrown error, or the
/// thrown value as text; one line, in which control characters are escaped.
class EvaluationError : public BrowserError {
 public:
  using BrowserError::BrowserError;
  const char* kind_name() const noexcept override { return "EvaluationError"; }
};

/// A page could not be loaded. The message contains the URL and the browser's error code.
class NavigationError : public BrowserError {
 public:
  using BrowserError::BrowserError;
  const char* kind_name() const noexcept override { return "NavigationError"; }
};

}  // namespace vision::chromium
