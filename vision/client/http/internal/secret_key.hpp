#pragma once

#include <boost/json/value.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace vision::detail::http {

/// The API key. Never shown: it has no text form, and `scrub` takes it out of
/// what came from outside. Its memory is wiped when it is destroyed.
class SecretKey {
 public:
  /// Drops white space around `given`. Throws std::invalid_argument, which does
  /// not show the value, when nothing is left or anything but visible ASCII is.
  explicit SecretKey(std::string_view given);
  ~SecretKey();
  SecretKey(const SecretKey&) = delete;
  SecretKey& operator=(const SecretKey&) = delete;

  std::string_view reveal() const noexcept { return value_; }

  /// `text` with every occurrence of the key replaced, also where it stands in
  /// base64, URL-encoded, in hexadecimal digits or escaped as in JSON, and of eight
  /// or more of its first characters at the end. Keys shorter than that are left
  /// alone: they occur by chance.
  std::string scrub(std::string_view text) const;
  /// Does so in every string of `value`, names of members included. A string that
  /// would show the key when written as JSON becomes that JSON text without it.
  void scrub(boost::json::value& value) const;

 private:
  std::string scrub_for_json(std::string_view text) const;

  std::string value_;
  std::vector<std::string> forms_;  // in which it is looked for
};

}  // namespace vision::detail::http
