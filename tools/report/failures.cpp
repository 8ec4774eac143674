#include "tools/report/failures.hpp"

#include <algorithm>
#include <cctype>

#include "vision/records/action_verb.hpp"

namespace report {
namespace {

constexpr std::size_t most_kinds = 64;
constexpr std::int64_t seconds_a_day = 86400;

bool speaks_of_timeout(std::string_view text) {
  constexpr std::string_view word = "timeout";
  const auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
  return std::search(text.begin(), text.end(), word.begin(), word.end(), same) != text.end();
}

// The type name that an error's text begins with.
std::string type_name(std::string_view text) {
  constexpr std::size_t longest = 60;
  const auto part_of_name = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
  const auto end = std::find_if_not(text.begin(), text.end(), part_of_name);
  const auto size = static_cast<std::size_t>(end - text.begin());
  return size == 0 || size > longest ? "unnamed" : std::string(text.substr(0, size));
}

bool is_refusal(std::string_view type) {
  for (const char* one : {"BadRequestError", "AuthenticationError", "PermissionDeniedError", "NotFoundError",
                          "ConflictError", "RequestTooLargeError", "UnprocessableEntityError", "APIStatusError"}) {
    if (type == one) return true;
  }
  return false;
}

constexpr std::string_view transport = "transport error: ", unexpected = "unexpected error: ";

struct Rail {
  std::string_view begins;
  Ending ending;
};

using Counts = Ending::Counts;

// The endings of the loop's own, as their reasons begin. What the caller asked for,
// or what kept the model from being asked, says nothing about the site.
constexpr Rail rails[] = {
    {"step cap", {"step cap reached", Counts::against_site}},
    {"repeated identical", {"no progress", Counts::against_site}},
    {"low-confidence success claim", {"unsure of success", Counts::against_site}},
    {"low-confidence", {"unsure proposal", Counts::against_site}},
    {"execute_action(", {"refused action", Counts::against_site}},
    {"aborted by caller", {"aborted by the caller", Counts::neither}},
    {"read-only hotspot", {"read-only", Counts::neither}},
    {"vision budget exhausted", {"call budget spent", Counts::neither}},
    {"act step", {"failed step", Counts::neither}},
};
constexpr Ending success = {"success", Counts::for_site}, gave_up = {"declared failure", Counts::against_site},
                 handed_over = {"handed over", Counts::against_site}, failed = {"failed call", Counts::neither},
                 other = {"other", Counts::against_site};

}  // namespace

std::string failure_kind(const Failure& failure) {
  const std::string_view text = failure.text;
  if (failure.timed_out) return "time-out";
  if (text.starts_with(transport)) return "transport error: " + type_name(text.substr(transport.size()));
  if (text.starts_with(unexpected)) {
    const std::string type = type_name(text.substr(unexpected.size()));
    return (is_refusal(type) ? "refusal: " : "unexpected error: ") + type;
  }
  if (text.find("did not return") != text.npos) return "no tool call";
  if (text.starts_with("BudgetExceeded")) return "call budget spent";
  return "page: " + type_name(text);
}

std::optional<Failure> failed_call(const Proposal& proposal) {
  if (proposal.action != vision::ActionVerb::declare_failure) return std::nullopt;
  const std::string_view reason = proposal.reason;
  const bool timed_out = speaks_of_timeout(reason);
  if (!timed_out && !reason.starts_with("transport error") && !reason.starts_with("unexpected error") &&
      reason.find("did not return") == reason.npos) {
    return std::nullopt;
  }
  return Failure{timed_out, reason};
}

const Ending& mission_ending(const Record& final_record, bool last_call_failed) {
  using vision::ActionVerb;
  if (final_record.terminal == ActionVerb::declare_success) return success;
  if (final_record.terminal == ActionVerb::declare_failure) return last_call_failed ? failed : gave_up;
  if (final_record.terminal == ActionVerb::escalate_to_cua) return handed_over;
  const std::string_view reason = final_record.proposal ? final_record.proposal->reason : std::string_view();
  for (const auto& rail : rails) {
    if (reason.starts_with(rail.begins)) return rail.ending;
  }
  return other;
}

void FailureCounts::add(std::int64_t unix_seconds, const std::string& kind, std::int64_t count) {
  const std::string known = by_kind_.size() < most_kinds || by_kind_.contains(kind) ? kind : "other";
  by_kind_[known] += count;
  by_day_[unix_seconds / seconds_a_day][known] += count;
}

void FailureCounts::add(const FailureCounts& counts) {
  for (const auto& [day, kinds] : counts.by_day_) {
    for (const auto& [kind, count] : kinds) add(day * seconds_a_day, kind, count);
  }
}

}  // namespace report
