#pragma once

#include <boost/json/object.hpp>
#include <string>
#include <string_view>
#include <utility>

namespace vision::chromium {

namespace detail {

inline void put(boost::json::object&) {}

template <class Value, class... Rest>
void put(boost::json::object& out, std::string_view key, Value&& value, Rest&&... rest) {
  out.emplace(key, std::forward<Value>(value));
  put(out, std::forward<Rest>(rest)...);
}

}  // namespace detail

/// An object of the given keys and values in turn. A function, because a braced
/// list does not compile within an expression that has co_await.
template <class... KeysAndValues>
boost::json::object fields(KeysAndValues&&... all) {
  boost::json::object out;
  detail::put(out, std::forward<KeysAndValues>(all)...);
  return out;
}

/// The text under `key`, or the empty text.
inline std::string_view text_of(const boost::json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  return value && value->is_string() ? std::string_view(value->get_string()) : std::string_view();
}

/// The object under `key`, or an empty one.
inline const boost::json::object& object_of(const boost::json::object& object, std::string_view key) {
  static const boost::json::object none;
  const auto* value = object.if_contains(key);
  return value && value->is_object() ? value->get_object() : none;
}

}  // namespace vision::chromium
