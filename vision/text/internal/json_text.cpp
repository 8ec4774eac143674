#include "vision/text/internal/json_text.hpp"

#include <array>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <cmath>

#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::text {
namespace {

void append_unit(std::string& out, char32_t unit) {
  constexpr std::string_view digits = "0123456789abcdef";
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += digits[(unit >> shift) & 0xF];
}

void append_escaped(std::string& out, char32_t c) {
  switch (c) {
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    case '\b': out += "\\b"; return;
    case '\f': out += "\\f"; return;
    default: break;
  }
  if (c >= 0x10000) {
    append_unit(out, 0xD800 + ((c - 0x10000) >> 10));
    append_unit(out, 0xDC00 + ((c - 0x10000) & 0x3FF));
  } else {
    append_unit(out, c);
  }
}

constexpr auto plain = [] {
  std::array<bool, 256> table{};
  for (unsigned char c = ' '; c <= 0x7F; ++c) table[c] = c != '"' && c != '\\';
  return table;
}();

void append_array(std::string& out, const boost::json::array& items) {
  out += '[';
  bool first = true;
  for (const auto& item : items) {
    if (!first) out += ", ";
    first = false;
    append_json(out, item);
  }
  out += ']';
}

}  // namespace

void append_json_string(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    std::size_t run = 0;
    while (run < text.size() && plain[static_cast<unsigned char>(text[run])]) ++run;
    out.append(text, 0, run);
    text.remove_prefix(run);
    if (text.empty()) break;
    const CodePoint c = next_code_point(text);
    append_escaped(out, c.value);
    text.remove_prefix(c.size);
  }
  out += '"';
}

void append_json(std::string& out, const boost::json::object& object) {
  out += '{';
  bool first = true;
  for (const auto& [key, value] : object) {
    if (!first) out += ", ";
    first = false;
    append_json_string(out, std::string_view(key.data(), key.size()));
    out += ": ";
    append_json(out, value);
  }
  out += '}';
}

void append_json(std::string& out, const boost::json::value& value) {
  using boost::json::kind;
  switch (value.kind()) {
    case kind::null: out += "null"; break;
    case kind::bool_: out += value.get_bool() ? "true" : "false"; break;
    case kind::int64: out += std::to_string(value.get_int64()); break;
    case kind::uint64: out += std::to_string(value.get_uint64()); break;
    case kind::double_: out += std::isfinite(value.get_double()) ? shortest(value.get_double()) : "null"; break;
    case kind::string: append_json_string(out, std::string_view(value.get_string())); break;
    case kind::array: append_array(out, value.get_array()); break;
    case kind::object: append_json(out, value.get_object()); break;
  }
}

std::string to_json(const boost::json::value& value) {
  std::string out;
  append_json(out, value);
  return out;
}

std::string to_json(const boost::json::object& object) {
  std::string out;
  append_json(out, object);
  return out;
}

std::string plain_text(const boost::json::value& value) {
  using boost::json::kind;
  switch (value.kind()) {
    case kind::null: return "None";
    case kind::bool_: return value.get_bool() ? "True" : "False";
    case kind::double_: return shortest(value.get_double());
    case kind::string: return std::string(value.get_string());
    default: return to_json(value);
  }
}

bool is_blank(const boost::json::value& value) noexcept {
  if (const auto* text = value.if_string()) return text->empty();
  if (const auto* list = value.if_array()) return list->empty();
  if (const auto* map = value.if_object()) return map->empty();
  return value.is_null();
}

}  // namespace vision::text
