#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace report {

/// What people decided by eye: JSON Lines with the members run_id (text or null),
/// hotspot_id and ts of a record, and label: "agree", "disagree" or "skip".
class Labels {
 public:
  enum class Decision { agree, disagree, skip };
  struct Label {
    Decision decision = Decision::skip;
    std::int64_t uses = 0;  ///< records that it was found for
  };

  /// Adds a file's labels; a later label for the same record replaces an earlier
  /// one. Throws InputError with the line number when a line is not a label.
  void load(const std::string& path);

  /// The label of a record; null without one. Counts the use.
  Label* find(const std::optional<std::string_view>& run, std::string_view site, std::string_view ts);

  std::int64_t size() const { return static_cast<std::int64_t>(labels_.size()); }
  std::int64_t unused() const;     ///< labels that match no record
  std::int64_t ambiguous() const;  ///< labels that match several records: they are ignored

 private:
  void add(std::string_view line);

  std::unordered_map<std::string, Label> labels_;
  std::string key_;  // of the latest look-up; spares an allocation per record
};

}  // namespace report
