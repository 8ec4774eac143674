#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/errors.hpp"
#include "vision/records/bytes.hpp"

namespace vision::chromium {

/// The parameters of a Runtime.evaluate that runs `script`, waits for its promise, and
/// has its value converted to JSON by the page.
boost::json::object evaluation(std::string_view script);

/// Returns the value of the script in the result of an evaluation(), null if it has no
/// JSON form. Throws EvaluationError if the script threw, BrowserError as parse_message
/// does.
boost::json::value evaluated_value(const boost::json::object& result);

/// Decodes base64 text (padded, without line breaks). Throws BrowserError if it is
/// not valid base64.
Bytes decode_base64(std::string_view text);

/// Returns the picture in the reply {"id":1,"result":{"data":"..."}}. Decodes in
/// place, so that the memory of `reply` becomes the picture's. Absent, with `reply`
/// unchanged, if the reply has another form. Throws as decode_base64 does.
std::optional<Bytes> picture_in_reply(std::string& reply);

}  // namespace vision::chromium
