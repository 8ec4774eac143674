#pragma once

#include <boost/json/object.hpp>
#include <string>
#include <utility>
#include <vector>

#include "chromium/launch_options.hpp"

namespace vision::chromium {

/// The commands, as methods and parameters, that make a page look as `options` say.
std::vector<std::pair<std::string, boost::json::object>> emulation_of(const PageOptions& options);

}  // namespace vision::chromium
