#pragma once

#include <boost/json/value.hpp>
#include <string_view>

namespace vision::detail {

/// The fixed instructions of every request.
extern const std::string_view SYSTEM_PROMPT;

/// The one tool through which the model must answer, as JSON.
const boost::json::value& PROPOSE_ACTION_TOOL();

}  // namespace vision::detail
