#pragma once

#include <exception>

namespace vision {

/// Mixed into a host's error types, so that an error of the computer-use agent
/// can be told from any other when it comes out of shadow_observe_then_cua:
///
///   class AgentError : public std::runtime_error, public vision::CuaOriginMark { ... };
///
/// Errors without it, or with it as a private or ambiguous base, pass through
/// unmarked. The mark belongs to one exception object and stays on it: a copy has
/// none, but a host that keeps an exception_ptr and throws the same object again
/// throws it marked.
class CuaOriginMark {
 public:
  ///@{
  /// Without the mark, copies too; assigning leaves the mark as it is.
  CuaOriginMark() = default;
  CuaOriginMark(const CuaOriginMark&) noexcept {}
  CuaOriginMark& operator=(const CuaOriginMark&) noexcept { return *this; }
  ///@}
  virtual ~CuaOriginMark() = default;
  /// True once shadow mode has re-raised this very object from its CUA leg.
  bool _kx_cua_origin = false;
};

/// Whether the error that was caught carries the mark: "did this come from the
/// CUA leg?". False for null, and for a type that cannot carry it.
bool is_cua_origin(const std::exception_ptr& error) noexcept;

/// The same for a caught std::exception.
bool is_cua_origin(const std::exception& error) noexcept;

namespace detail {
/// Sets the mark where the error's type has one.
void mark_cua_origin(const std::exception_ptr& error) noexcept;
}  // namespace detail

}  // namespace vision
