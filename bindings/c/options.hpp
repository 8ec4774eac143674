#pragma once

#include <boost/json/object.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vision/client/ask_options.hpp"

namespace vision::c {

/// The value of a JSON text of the host's. Throws std::invalid_argument, which names
/// `what`, for a text that is not JSON.
boost::json::value read_value(std::string_view json, const std::string& what);

/// The members of a JSON object, by name and type. All members throw
/// std::invalid_argument, which names the owner and the member, for one of another type.
/// A member that is null, like one that is missing, is absent.
class Options {
 public:
  /// `owner` begins every message. No text at all is an empty object.
  Options(std::string_view json, std::string owner);
  Options(boost::json::object members, std::string owner) : members_(std::move(members)), owner_(std::move(owner)) {}

  std::optional<bool> flag(std::string_view name);
  std::optional<std::int64_t> integer(std::string_view name);
  std::optional<double> number(std::string_view name);
  std::optional<Seconds> seconds(std::string_view name);
  std::optional<std::chrono::milliseconds> milliseconds(std::string_view name);  ///< of a number of seconds
  std::optional<std::string> text(std::string_view name);
  std::optional<std::vector<std::string>> texts(std::string_view name);
  std::optional<boost::json::object> object(std::string_view name);

  /// The same, of a member that must be there: `required(&Options::text, "url")`.
  template <class T>
  T required(std::optional<T> (Options::*member)(std::string_view), std::string_view name) {
    if (auto value = (this->*member)(name)) return std::move(*value);
    refuse(name, "is required");
  }

  /// To be called when all members have been asked for: throws for any other.
  void finish() const;

 private:
  std::optional<boost::json::value> take(std::string_view name);
  [[noreturn]] void refuse(std::string_view name, const std::string& why) const;
  [[noreturn]] void refuse_type(std::string_view name, const char* type, const boost::json::value& value) const;

  boost::json::object members_;
  std::string owner_;
};

}  // namespace vision::c
