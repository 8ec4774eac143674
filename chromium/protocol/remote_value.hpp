#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/errors.hpp"
#include "vision/records/bytes.hpp"

namespace vision::chromium {

/// The value in the answer to Runtime.evaluate by value. What has no JSON form
/// (undefined, a function, NaN, an infinity, a bigint beyond 64 bits) is null.
/// Throws EvaluationError when the script threw.
boost::json::value evaluated_value(boost::json::object result);

/// Whether the refusal only says that the value has no JSON form (a window, a
/// symbol, a cyclic object).
bool has_no_json_form(const ProtocolError& error);

/// The bytes that a base64 text (padded, one line) stands for. Throws
/// BrowserError when it is not one.
Bytes decode_base64(std::string_view text);

/// The picture in the answer {"id":1,"result":{"data":"..."}}: decoded in place, so
/// that `answer`'s memory becomes the picture's. Absent, and `answer` unchanged, for
/// an answer of another form. Throws as decode_base64 does.
std::optional<Bytes> picture_in_answer(std::string& answer);

}  // namespace vision::chromium
