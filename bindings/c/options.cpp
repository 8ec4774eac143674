#include "bindings/c/options.hpp"

#include <stdexcept>
#include <utility>

#include "vision/runtime/internal/duration.hpp"
#include "vision/text/internal/json_reader.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::c {
namespace json = boost::json;
namespace {

// A value in a message.
std::string excerpt(const json::value& value) {
  constexpr std::size_t code_points = 60;
  const std::string whole = text::to_json(value);
  const std::string_view start = text::first_code_points(whole, code_points);
  return std::string(start) + (start.size() < whole.size() ? "..." : "");
}

json::object read_object(std::string_view text, const std::string& owner) {
  if (text.empty()) return {};
  json::value value = read_value(text, owner + ": the options");
  if (auto* object = value.if_object()) return std::move(*object);
  throw std::invalid_argument(owner + ": the options must be an object, not " + excerpt(value));
}

}  // namespace

json::value read_value(std::string_view json, const std::string& what) {
  constexpr std::size_t max_depth = 256;
  boost::system::error_code error;
  json::value value = text::read_javascript(json, {max_depth, json::object::max_size()}, error);
  if (error) throw std::invalid_argument(what + " cannot be read as JSON: " + error.message());
  return value;
}

Options::Options(std::string_view json, std::string owner)
    : members_(read_object(json, owner)), owner_(std::move(owner)) {}

std::optional<bool> Options::flag(std::string_view name) {
  const auto value = take(name);
  if (!value) return std::nullopt;
  if (const auto* is = value->if_bool()) return *is;
  refuse_type(name, "true or false", *value);
}

std::optional<std::int64_t> Options::integer(std::string_view name) {
  const auto value = take(name);
  if (!value) return std::nullopt;
  if (const auto* i = value->if_int64()) return *i;
  refuse_type(name, "an integer", *value);
}

std::optional<double> Options::number(std::string_view name) {
  if (const auto value = seconds(name)) return value->value();
  return std::nullopt;
}

std::optional<Seconds> Options::seconds(std::string_view name) {
  const auto value = take(name);
  if (!value) return std::nullopt;
  if (const auto* i = value->if_int64()) return Seconds(*i);
  if (const auto* u = value->if_uint64()) return Seconds(*u);
  if (const auto* d = value->if_double()) return Seconds(*d);
  refuse_type(name, "a number", *value);
}

std::optional<std::chrono::milliseconds> Options::milliseconds(std::string_view name) {
  const auto value = number(name);
  if (!value) return std::nullopt;
  return std::chrono::ceil<std::chrono::milliseconds>(runtime::to_duration(*value));
}

std::optional<std::string> Options::text(std::string_view name) {
  const auto value = take(name);
  if (!value) return std::nullopt;
  if (const auto* text = value->if_string()) return std::string(*text);
  refuse_type(name, "a text", *value);
}

std::optional<std::vector<std::string>> Options::texts(std::string_view name) {
  const auto value = take(name);
  if (!value) return std::nullopt;
  std::vector<std::string> out;
  if (const auto* list = value->if_array()) {
    for (const auto& item : *list) {
      if (const auto* text = item.if_string()) out.emplace_back(*text);
    }
    if (out.size() == list->size()) return out;
  }
  refuse_type(name, "a list of texts", *value);
}

std::optional<json::object> Options::object(std::string_view name) {
  auto value = take(name);
  if (!value) return std::nullopt;
  if (auto* object = value->if_object()) return std::move(*object);
  refuse_type(name, "an object", *value);
}

void Options::finish() const {
  if (!members_.empty()) throw std::invalid_argument(owner_ + ": unknown option " + excerpt(members_.begin()->key()));
}

std::optional<json::value> Options::take(std::string_view name) {
  const auto found = members_.find(name);
  if (found == members_.end()) return std::nullopt;
  json::value value = std::move(found->value());
  members_.erase(found);
  if (value.is_null()) return std::nullopt;
  return value;
}

void Options::refuse(std::string_view name, const std::string& why) const {
  throw std::invalid_argument(owner_ + ": " + std::string(name) + " " + why);
}

void Options::refuse_type(std::string_view name, const char* type, const json::value& value) const {
  refuse(name, std::string("must be ") + type + ", not " + excerpt(value));
}

}  // namespace vision::c
