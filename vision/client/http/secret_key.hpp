#pragma once

#include <string>
#include <string_view>

namespace vision::http {

/// The API key. Never shown: it has no text form, and `scrub` takes it out of
/// texts that came from outside. Its memory is wiped when it is destroyed.
class SecretKey {
 public:
  /// Drops white space around `given`. Throws std::invalid_argument, which does
  /// not show the value, when nothing is left or anything but visible ASCII is.
  explicit SecretKey(std::string_view given);
  ~SecretKey();
  SecretKey(const SecretKey&) = delete;
  SecretKey& operator=(const SecretKey&) = delete;

  std::string_view reveal() const noexcept { return value_; }

  /// `text` with every occurrence of the key replaced. Keys shorter than eight
  /// characters are left alone: they occur by chance.
  std::string scrub(std::string_view text) const;

 private:
  std::string value_;
};

}  // namespace vision::http
