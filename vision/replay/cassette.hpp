#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "vision/runtime/time.hpp"
#include "vision/text/named_error.hpp"

namespace vision {

namespace detail {
class Tape;
}

/// What a cassette does with a call.
enum class CassetteMode {
  none,          ///< replays; what was not recorded is an error. Never reaches model or page: right for CI
  once,          ///< replays as `none` when there is a recording, and records when there is none
  new_episodes,  ///< replays what was recorded, and records what was not; for requests only
  all,           ///< records everything; the first call replaces an earlier recording
};

/// The optional parameters of Cassette.
class CassetteOptions {
 public:
  CassetteOptions() {}

  /// Default CassetteMode::once.
  CassetteOptions& mode(CassetteMode value) & {
    mode_ = value;
    return *this;
  }
  /// Answers requests in the order of the recording, whatever they ask, in place of
  /// looking for an equal one: for pages that never render twice the same and are not
  /// recorded themselves. Logs one warning. Default false.
  CassetteOptions& by_order(bool value) & {
    by_order_ = value;
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  CassetteOptions mode(CassetteMode value) && { return std::move(mode(value)); }
  CassetteOptions by_order(bool value) && { return std::move(by_order(value)); }
  ///@}

  ///@{
  /// The value that was set, or its default.
  CassetteMode mode() const noexcept { return mode_; }
  bool by_order() const noexcept { return by_order_; }
  ///@}

 private:
  CassetteMode mode_ = CassetteMode::once;
  bool by_order_ = false;
};

/// A recorded session of model and page: a folder with `cassette.jsonl`, a line per call,
/// and every picture as a PNG named by its SHA-256. It holds no HTTP header and no key,
/// but all that was on the screen and all that was typed; files have mode 0600.
/// docs/replay.md describes the lines.
///
/// Share one among the CassetteClient and the CassettePage of a mission. Not
/// thread-safe: it belongs to one event loop, which it blocks for each write.
class Cassette {
 public:
  /// Reads the recording in `folder`, if there is one. Throws std::runtime_error when
  /// there is none and the mode is `none`, or when a line cannot be read. Nothing is
  /// written before the first call is recorded.
  explicit Cassette(std::string folder, CassetteOptions options = CassetteOptions());
  /// Logs a warning when calls were left unused.
  ~Cassette();
  Cassette(const Cassette&) = delete;
  Cassette& operator=(const Cassette&) = delete;

  /// Whether there is a recording from which calls are answered.
  bool is_replaying() const noexcept;
  /// Whether a call can be recorded: in `all`, `new_episodes`, and `once` without a recording.
  bool is_recording() const noexcept;
  /// What was recorded and has not been replayed, as "NUMBER CALL". Empty when the
  /// cassette does not replay.
  std::vector<std::string> unused() const;
  /// The message of every CassetteMiss so far.
  const std::vector<std::string>& misses() const noexcept;
  /// The wall clock when the first call was recorded, since the Unix epoch; zero when the
  /// cassette does not replay. A test::VirtualLoop that starts then makes the recorded time stamps.
  runtime::Duration began() const noexcept;

  /// The cassette's internals, for its client and page. Not for hosts.
  detail::Tape& _tape() noexcept { return *tape_; }

 private:
  const std::unique_ptr<detail::Tape> tape_;
};

/// Thrown for a call that the recording does not have. The message names the request or
/// the page's call that it was compared with, the first member that differs, and whether
/// only the picture does. The ask call makes a declare_failure of it, "unexpected error: ...".
class CassetteMiss : public std::runtime_error, public NamedError {
 public:
  using std::runtime_error::runtime_error;
  const char* kind_name() const noexcept override { return "CassetteMiss"; }
};

/// An error of the host's own that was recorded: same name, same message. Errors of
/// api_error.hpp are replayed as what they were.
class RecordedError : public std::runtime_error, public NamedError {
 public:
  /// `kind` becomes kind_name(), `message` what().
  RecordedError(std::string kind, const std::string& message) : std::runtime_error(message), kind_(std::move(kind)) {}
  const char* kind_name() const noexcept override { return kind_.c_str(); }

 private:
  std::string kind_;
};

}  // namespace vision
