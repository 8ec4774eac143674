#pragma once

#include <string>
#include <vector>

namespace check {

/// What a check found out.
struct Finding {
  enum class Level { ok, warning, failure };

  std::string subject;  ///< what was checked: "key", "browser"
  Level level = Level::ok;
  std::string text;
  std::string advice;  ///< what to do about it; empty when all is well
};

/// The findings in their order, printed as they come unless they are wanted as JSON.
class Checklist {
 public:
  explicit Checklist(bool as_json) : as_json_(as_json) {}

  void ok(const std::string& subject, const std::string& text) { add({subject, Finding::Level::ok, text, ""}); }
  void warning(const std::string& subject, const std::string& text, const std::string& advice) {
    add({subject, Finding::Level::warning, text, advice});
  }
  void failure(const std::string& subject, const std::string& text, const std::string& advice) {
    add({subject, Finding::Level::failure, text, advice});
  }

  const std::vector<Finding>& findings() const { return findings_; }
  bool has_failures() const;

  /// An object with ok and checks, as docs/check.md describes it.
  std::string json() const;

 private:
  void add(Finding finding);

  const bool as_json_;
  std::vector<Finding> findings_;
};

}  // namespace check
