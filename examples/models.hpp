#pragma once

/// The models that the examples and the documentation name. As of November 2026
/// both accept the library's request: a forced tool call with thinking disabled.
namespace examples {

// [models]
inline constexpr const char* light_model = "claude-haiku-5-5";
inline constexpr const char* heavy_model = "claude-opus-5";
// [models]

}  // namespace examples
