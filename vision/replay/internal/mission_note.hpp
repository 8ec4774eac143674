#pragma once

#include <boost/json/object.hpp>

#include "vision/wirein/act_loop.hpp"

namespace vision::detail {

/// The options of a mission as a cassette keeps them, with the models of the registry,
/// but for what is code or an object of the host's: the client and `should_abort`.
boost::json::object note_of(const ActLoopOptions& options);

/// The options that were noted. Throws std::exception for a note that lacks something.
ActLoopOptions options_of(const boost::json::object& note);

}  // namespace vision::detail
