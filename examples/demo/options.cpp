#include "examples/demo/options.hpp"

#include <cmath>
#include <stdexcept>

#include "vision/text/internal/numbers.hpp"

namespace demo {
namespace {

constexpr int largest_side = 4000;
constexpr double largest_dpr = 4;

std::int64_t integer(const std::string& name, const std::string& value, std::int64_t least, std::int64_t most) {
  const auto number = vision::text::parse_integer(value);
  if (!number || *number < least || *number > most) {
    throw std::invalid_argument(name + " takes a whole number from " + std::to_string(least) + " to " +
                                std::to_string(most) + ", not \"" + value + "\"");
  }
  return *number;
}

int side(const std::string& name, const std::string& value, int least) {
  return static_cast<int>(integer(name, value, least, largest_side));
}

double ratio(const std::string& name, const std::string& value) {
  const auto number = vision::text::parse_real(value);
  if (!number || !std::isfinite(*number) || *number < 0.5 || *number > largest_dpr) {
    throw std::invalid_argument(name + " takes a number from 0.5 to 4, not \"" + value + "\"");
  }
  return *number;
}

std::string variable(const Environment& environment, const char* name) {
  const char* value = environment(name);
  return value == nullptr ? std::string() : std::string(value);
}

const std::string& first_of(const std::string& a, const std::string& b) {
  return a.empty() ? b : a;
}

// The options that are complete without a value. False for any other name.
bool set_switch(DemoOptions& options, const std::string& name) {
  if (name == "-h" || name == "--help") {
    options.help = true;
  } else if (name == "--version") {
    options.version = true;
  } else if (name == "--local") {
    options.local = true;
  } else {
    return false;
  }
  return true;
}

using SetValue = void (*)(DemoOptions& options, const std::string& name, const std::string& value);

struct ValueOption {
  const char* name;
  SetValue set;
};

constexpr ValueOption value_options[] = {
    {"--light", [](auto& o, const auto&, const auto& value) { o.light = value; }},
    {"--heavy", [](auto& o, const auto&, const auto& value) { o.heavy = value; }},
    {"--width", [](auto& o, const auto& name, const auto& value) { o.width = side(name, value, 320); }},
    {"--height", [](auto& o, const auto& name, const auto& value) { o.height = side(name, value, 240); }},
    {"--dpr", [](auto& o, const auto& name, const auto& value) { o.dpr = ratio(name, value); }},
    {"--max-steps", [](auto& o, const auto& name, const auto& value) { o.max_steps = integer(name, value, 0, 1000); }},
    {"--out", [](auto& o, const auto&, const auto& value) { o.out = value; }},
    {"--record", [](auto& o, const auto&, const auto& value) { o.record = value; }},
};

SetValue setter_of(const std::string& name) {
  for (const auto& option : value_options) {
    if (name == option.name) return option.set;
  }
  return nullptr;
}

}  // namespace

DemoOptions parse_options(const std::vector<std::string>& arguments) {
  DemoOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (set_switch(options, arguments[i])) {
      if (options.help || options.version) return options;
      continue;
    }
    const auto equals = arguments[i].find('=');
    const std::string name = arguments[i].substr(0, equals);
    const SetValue set = setter_of(name);
    if (set == nullptr)
      throw std::invalid_argument("unknown option \"" + arguments[i] + "\"; --help lists the options");
    std::string value;
    if (equals != std::string::npos) {
      value = arguments[i].substr(equals + 1);
    } else if (i + 1 < arguments.size() && !arguments[i + 1].starts_with("--")) {
      value = arguments[++i];
    }
    if (value.empty()) throw std::invalid_argument(name + " needs a value");
    set(options, name, value);
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
  const std::string light = first_of(options.light, variable(environment, "VISION_LIGHT_MODEL"));
  const std::string heavy = first_of(options.heavy, variable(environment, "VISION_HEAVY_MODEL"));
  choice.light = first_of(light, heavy);
  choice.heavy = first_of(heavy, light);
  if (choice.light.empty()) {
    throw std::invalid_argument(
        "ANTHROPIC_API_KEY is set, so the hosted model would decide, but no model is named. Name one with --light and "
        "--heavy, or with VISION_LIGHT_MODEL and VISION_HEAVY_MODEL; it must accept a forced tool choice with thinking "
        "switched off. Or give --local to use the local model.");
  }
  return choice;
}

}  // namespace demo
