#pragma once

#include <boost/json/object.hpp>
#include <exception>

namespace vision::detail {

/// What must be known of an error to throw it again: `class` (of api_error.hpp, the nearest
/// one; absent for other errors), `kind`, `message`, and the members of its class.
boost::json::object describe_error(const std::exception_ptr& error);

/// Throws an error of the same class, name and message; a RecordedError for one without a
/// class. Throws std::exception for a description that lacks something.
[[noreturn]] void throw_recorded(const boost::json::object& error);

}  // namespace vision::detail
