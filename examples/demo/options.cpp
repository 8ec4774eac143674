#include "examples/demo/options.hpp"

#include <cmath>

#include "vision/text/internal/numbers.hpp"

namespace demo {
namespace {

constexpr int largest_side = 4000;
constexpr double largest_dpr = 4;

std::int64_t integer(const std::string& name, const std::string& value, std::int64_t least, std::int64_t most) {
  const auto number = vision::text::parse_integer(value);
  if (!number || *number < least || *number > most) {
    throw UsageError(name + " takes a whole number from " + std::to_string(least) + " to " + std::to_string(most) +
                     ", not \"" + value + "\"");
  }
  return *number;
}

double ratio(const std::string& name, const std::string& value) {
  const auto number = vision::text::parse_real(value);
  if (!number || !std::isfinite(*number) || *number < 0.5 || *number > largest_dpr) {
    throw UsageError(name + " takes a number from 0.5 to 4, not \"" + value + "\"");
  }
  return *number;
}

std::string variable(const Environment& environment, const char* name) {
  const char* value = environment(name);
  return value == nullptr ? std::string() : std::string(value);
}

std::string first_of(const std::string& a, const std::string& b, const std::string& c) {
  return !a.empty() ? a : !b.empty() ? b : c;
}

}  // namespace

const char* const usage =
    "usage: vision-demo [options]\n"
    "\n"
    "A mission in a real browser: vision invites somebody to a board of a small web\n"
    "application and reads a link from the screen.\n"
    "\n"
    "With ANTHROPIC_API_KEY set, the hosted model decides (ANTHROPIC_BASE_URL gives\n"
    "another endpoint); otherwise a local model, which is optical character\n"
    "recognition that follows the numbered instructions of the mission.\n"
    "\n"
    "  --light NAME    hosted model for most calls (or VISION_LIGHT_MODEL)\n"
    "  --heavy NAME    hosted model for calls with high stakes (or VISION_HEAVY_MODEL)\n"
    "  --local         the local model even though there is a key\n"
    "  --width N       viewport in CSS pixels, 1280\n"
    "  --height N      viewport in CSS pixels, 800\n"
    "  --dpr X         device pixel ratio, 1\n"
    "  --max-steps N   step cap of the mission, 20\n"
    "  --out DIR       where report, shadow log and screenshots go, build/demo\n"
    "  --help          this text\n"
    "\n"
    "Exit status: 0 when the mission succeeded with the right answer, 1 when not, 2\n"
    "for a wrong call, 130 when interrupted.\n";

DemoOptions parse_options(const std::vector<std::string>& arguments) {
  DemoOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (name == "--help") {
      options.help = true;
      continue;
    }
    if (name == "--local") {
      options.local = true;
      continue;
    }
    const bool known = name == "--light" || name == "--heavy" || name == "--width" || name == "--height" ||
                       name == "--dpr" || name == "--max-steps" || name == "--out";
    if (!known) throw UsageError("unknown option \"" + name + "\"");
    if (i + 1 == arguments.size() || arguments[i + 1].empty()) throw UsageError(name + " needs a value");
    const std::string& value = arguments[++i];
    if (name == "--light") options.light = value;
    if (name == "--heavy") options.heavy = value;
    if (name == "--width") options.width = static_cast<int>(integer(name, value, 320, largest_side));
    if (name == "--height") options.height = static_cast<int>(integer(name, value, 240, largest_side));
    if (name == "--dpr") options.dpr = ratio(name, value);
    if (name == "--max-steps") options.max_steps = integer(name, value, 0, 1000);
    if (name == "--out") options.out = value;
  }
  return options;
}

ModelChoice choose_model(const DemoOptions& options, const Environment& environment) {
  ModelChoice choice;
  choice.api_key = variable(environment, "ANTHROPIC_API_KEY");
  choice.local = options.local || choice.api_key.empty();
  if (choice.local) {
    choice.api_key = "local";
    choice.light = choice.heavy = "local-ocr";
    return choice;
  }
  const std::string light = first_of(options.light, variable(environment, "VISION_LIGHT_MODEL"), "");
  const std::string heavy = first_of(options.heavy, variable(environment, "VISION_HEAVY_MODEL"), "");
  choice.light = first_of(light, heavy, "");
  choice.heavy = first_of(heavy, light, "");
  if (choice.light.empty()) {
    throw UsageError(
        "ANTHROPIC_API_KEY is set, so the hosted model would decide, but no model is named. Name one with --light and "
        "--heavy, or with VISION_LIGHT_MODEL and VISION_HEAVY_MODEL; it must accept a forced tool choice with thinking "
        "switched off. Or give --local to use the local model.");
  }
  return choice;
}

}  // namespace demo
