#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace demo {

/// The value of an environment variable, or null.
using Environment = std::function<const char*(const char* name)>;

/// A command line or an environment that the demo cannot work with. The message
/// says what to do.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct DemoOptions {
  int width = 1280;  ///< of the viewport, CSS pixels
  int height = 800;
  double dpr = 1;  ///< device pixel ratio
  std::int64_t max_steps = 20;
  std::filesystem::path out = "build/demo";
  bool local = false;  ///< the local model even when there is an API key
  bool help = false;
  std::string light, heavy;  ///< model names as given, possibly empty
};

/// Who answers the mission's questions.
struct ModelChoice {
  bool local = true;
  std::string api_key;
  std::string light, heavy;
};

extern const char* const usage;

/// Reads the command line without the program's name. Throws UsageError.
DemoOptions parse_options(const std::vector<std::string>& arguments);

/// The hosted model when ANTHROPIC_API_KEY is set, with the names of the command
/// line or of VISION_LIGHT_MODEL and VISION_HEAVY_MODEL (one name serves for
/// both); else the local model. Throws UsageError for a hosted model without a
/// name.
ModelChoice choose_model(const DemoOptions& options, const Environment& environment);

}  // namespace demo
