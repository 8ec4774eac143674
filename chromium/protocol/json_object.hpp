#pragma once

#include <boost/json/object.hpp>
#include <string_view>
#include <utility>

namespace vision::chromium {

inline void add_members(boost::json::object&) {}

/// Adds the given keys and values, in turn, to `out`.
template <class Value, class... Rest>
void add_members(boost::json::object& out, std::string_view key, Value&& value, Rest&&... rest) {
  out.emplace(key, std::forward<Value>(value));
  add_members(out, std::forward<Rest>(rest)...);
}

/// An object of the given keys and values, in turn. A function, because g++ 12 does
/// not compile a braced list inside an expression with co_await.
template <class... KeysAndValues>
boost::json::object make_object(KeysAndValues&&... all) {
  boost::json::object out;
  add_members(out, std::forward<KeysAndValues>(all)...);
  return out;
}

/// The string under `key`, or an empty one.
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
