#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace demo {

/// The value of an environment variable, or null.
using Environment = std::function<const char*(const char* name)>;

struct DemoOptions {
  int width = 1280;  ///< of the viewport, CSS pixels
  int height = 800;
  double dpr = 1;  ///< device pixel ratio
  std::int64_t max_steps = 20;
  std::filesystem::path out = "build/demo";
  std::filesystem::path record;  ///< the cassette that the mission is recorded to; empty: none
  bool local = false;            ///< the local model even when there is an API key
  bool help = false;
  bool version = false;
  std::string light, heavy;  ///< model names as given, possibly empty
};

/// The model that decides.
struct ModelChoice {
  bool local = true;
  std::string api_key;
  std::string light, heavy;
};

/// The content of usage.txt: every option and every exit status.
extern const char* const usage;

/// Reads the command line up to --help or --version, without the program's name. Throws std::invalid_argument
/// that says what is wrong with which option.
DemoOptions parse_options(const std::vector<std::string>& arguments);

/// The hosted model when ANTHROPIC_API_KEY is set, with the names of the command
/// line or of VISION_LIGHT_MODEL and VISION_HEAVY_MODEL (one name serves for
/// both); else the local model. Throws std::invalid_argument for a hosted model without a
/// name.
ModelChoice choose_model(const DemoOptions& options, const Environment& environment);

}  // namespace demo
