#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/errors.hpp"
#include "vision/records/bytes.hpp"

namespace vision::chromium {

/// Returns the value in the result of a Runtime.evaluate by value. Null if it has no
/// JSON form: undefined, a function, NaN, an infinity, a bigint beyond 64 bits.
/// Throws EvaluationError if the script threw.
boost::json::value evaluated_value(boost::json::object result);

/// Whether the browser refused only because the value has no JSON form: a window, a
/// symbol, a cyclic object.
bool has_no_json_form(const ProtocolError& error);

/// Decodes base64 text (padded, without line breaks). Throws BrowserError if it is
/// not valid base64.
Bytes decode_base64(std::string_view text);

/// Returns the picture in the reply {"id":1,"result":{"data":"..."}}. Decodes in
/// place, so that the memory of `reply` becomes the picture's. Absent, with `reply`
/// unchanged, if the reply has another form. Throws as decode_base64 does.
std::optional<Bytes> picture_in_reply(std::string& reply);

}  // namespace vision::chromium
