#pragma once

#include <boost/json/value.hpp>
#include <string>
#include <string_view>

/// The one writer of JSON text, used for requests, log records and context
/// values alike, so that all of them follow the same rules.
namespace vision::text {

/// Appends `value` as JSON text on one line: ", " between items and ": " between
/// key and value, members in insertion order, every control character that JSON
/// forbids and every character beyond ASCII escaped (\uXXXX in lower case, surrogate
/// pairs beyond the basic plane),
/// integers in decimal, reals in their `shortest` form. What JSON cannot say is
/// made sayable: a NaN or an infinity becomes null, an ill-formed part of a text
/// \ufffd. Recurses once per nesting level.
void append_json(std::string& out, const boost::json::value& value);
void append_json(std::string& out, const boost::json::object& object);

/// Appends `text` as a JSON string, quotes included.
void append_json_string(std::string& out, std::string_view text);

std::string to_json(const boost::json::value& value);
std::string to_json(const boost::json::object& object);

/// The form a value takes inside a sentence: a text unchanged, an integer in
/// decimal, a real in its `shortest` form, "True" or "False", "None" for null,
/// a list or map as JSON text.
std::string plain_text(const boost::json::value& value);

/// Whether `value` is null, the empty text, an empty list or an empty map. Zero
/// and false are not blank.
bool is_blank(const boost::json::value& value) noexcept;

}  // namespace vision::text
