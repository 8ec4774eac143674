#pragma once

#include <exception>
#include <string>

/// What errors say of themselves: one place for every reason, hint and record that
/// names one.
namespace vision::text {

/// An error's name and message.
struct ErrorDescription {
  std::string kind;     ///< unqualified type name, or the NamedError's own
  std::string message;  ///< what() of a std::exception, a thrown text, else empty
};

/// Describes any exception, std::exception or not. The type name comes without
/// namespaces and template arguments. `error` must not be null.
ErrorDescription describe(const std::exception_ptr& error);

/// "Kind: " and the first 200 code points of the message: the form in which
/// errors enter records and the act loop's reasons.
std::string exception_text(const std::exception_ptr& error);

/// "Kind: " and the whole message.
std::string full_exception_text(const std::exception_ptr& error);

/// Strips namespaces, template arguments, ABI tags and the wrappers that libraries
/// put around thrown errors from a demangled type name. Exposed for its tests.
std::string unqualified_type_name(std::string name);

}  // namespace vision::text
