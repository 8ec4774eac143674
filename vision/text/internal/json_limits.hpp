#pragma once

#include <cstddef>
#include <string_view>

namespace vision::text {

/// Whether an object anywhere in the JSON text has more than `most` members. To be
/// asked before a text from outside is parsed: names can be chosen so that all of an
/// object's members have the same hash, and Boost.JSON then takes time with the
/// square of their number. Takes time with the length of the text; of what is no JSON
/// either answer may come.
bool has_crowded_object(std::string_view json, std::size_t most);

}  // namespace vision::text
