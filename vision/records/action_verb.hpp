#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace vision {

/// The closed, ordered set of verbs that the model may answer with. The first
/// five ask for something on the page; the last three are verdicts for the
/// caller and never touch it.
struct ActionVerb {
  ///@{
  /// The verb's text, as requests, results and records contain it.
  static constexpr std::string_view click = "click";
  static constexpr std::string_view type = "type";
  static constexpr std::string_view scroll = "scroll";
  static constexpr std::string_view key = "key";
  static constexpr std::string_view wait = "wait";
  static constexpr std::string_view escalate_to_cua = "escalate_to_cua";
  static constexpr std::string_view declare_success = "declare_success";
  static constexpr std::string_view declare_failure = "declare_failure";
  ///@}

  /// All verbs, in the order in which they are presented to the model.
  static constexpr std::array<std::string_view, 8> all = {
      click, type, scroll, key, wait, escalate_to_cua, declare_success, declare_failure};

  /// Whether a verb is one of the last three. False for a text that is not a verb.
  static constexpr bool is_verdict(std::string_view verb) noexcept {
    return verb == escalate_to_cua || verb == declare_success || verb == declare_failure;
  }
};

}  // namespace vision
