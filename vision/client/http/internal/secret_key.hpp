#pragma once

#include <boost/json/value.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace vision::detail::http {

/// The API key. It has no text form, and `scrub` removes it from what an endpoint
/// sends. Its memory is wiped when it is destroyed.
class SecretKey {
 public:
  /// Only keys of this many characters or more are removed: a short one may be an
  /// ordinary word ("placeholder"), and would censor ordinary text.
  static constexpr std::size_t shortest_removable = 16;

  /// Throws std::invalid_argument as clean_api_key() does.
  explicit SecretKey(std::string_view given);
  ~SecretKey();
  SecretKey(const SecretKey&) = delete;
  SecretKey& operator=(const SecretKey&) = delete;

  std::string_view reveal() const noexcept { return value_; }
  bool is_removable() const noexcept { return !forms_.empty(); }

  /// `text` with "[API key]" for each occurrence of the whole key, as it is or
  /// escaped as in JSON.
  std::string scrub(std::string_view text) const;

  /// The same, and "[API key]" for eight or more of the key's first characters at
  /// the end of `text`, where an excerpt may have cut the key short. For error
  /// messages only: the keys of a vendor begin alike, so an ordinary text may end
  /// like that.
  std::string scrub_excerpt(std::string_view text) const;

  /// The first `scrub` on every string in `value` (names of members are left).
  void scrub(boost::json::value& value) const;

 private:
  std::string value_;
  std::vector<std::string> forms_;  // the texts to look for; empty for a short key
};

}  // namespace vision::detail::http
