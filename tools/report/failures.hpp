#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tools/report/record.hpp"

namespace report {

/// The kind under which a failed call is counted: "time-out", "transport error: RateLimitError",
/// "refusal: BadRequestError" (the endpoint answered and said no), "no tool call",
/// "call budget spent", "unexpected error: KIND", or "page: KIND" for what failed
/// before the call.
std::string failure_kind(const Failure& failure);

/// The failure that an act step's declare_failure stands for; absent when the model
/// itself meant it. The reason is read as the library's own records are: a time-out
/// is whatever speaks of one.
std::optional<Failure> failed_call(const Proposal& proposal);

/// How a mission can end.
struct Ending {
  enum class Counts { for_site, against_site, neither };  ///< when the site is judged
  std::string_view name;
  Counts counts;
};

/// How a mission ended, by its final record and whether its last call failed.
const Ending& mission_ending(const Record& final_record, bool last_call_failed);

/// Failures per day and kind. Holds at most 64 kinds; more are "other".
class FailureCounts {
 public:
  void add(std::int64_t unix_seconds, const std::string& kind, std::int64_t count = 1);
  void add(const FailureCounts& other);
  /// By the number of the day since 1970, then by kind.
  const std::map<std::int64_t, std::map<std::string, std::int64_t>>& by_day() const { return by_day_; }
  const std::map<std::string, std::int64_t>& by_kind() const { return by_kind_; }

 private:
  std::map<std::int64_t, std::map<std::string, std::int64_t>> by_day_;
  std::map<std::string, std::int64_t> by_kind_;
};

}  // namespace report
