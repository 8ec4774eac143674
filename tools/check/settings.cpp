#include "tools/check/settings.hpp"

#include <fmt/core.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "vision/client/internal/api_key.hpp"
#include "vision/settings/settings.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace check {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void check_tier(Checklist& list) {
  const std::string value = environment("KX_VISION_TIER"), tier(vision::is_vision_enabled());
  const std::string_view given = vision::text::trim(value);
  if (given.empty()) {
    list.warning("tier", "off: KX_VISION_TIER is not set",
                 "set KX_VISION_TIER to shadow, tier2 or tier3 where the pipeline runs");
  } else if (tier == "off" && given != "off") {
    list.failure("tier", "off: KX_VISION_TIER is \"" + value + "\", which is not a tier",
                 "use one of off, shadow, tier2, act, tier3");
  } else {
    list.ok("tier", tier + " (KX_VISION_TIER)");
  }
}

void check_timeout(Checklist& list) {
  const std::string value = environment("KX_VISION_TIMEOUT_S");
  if (value.empty()) return list.ok("timeout", fmt::format("{:g} s per call", vision::DEFAULT_TIMEOUT_S));
  const double seconds = vision::text::parse_real(value.c_str()).value_or(NAN);
  if (std::isfinite(seconds) && seconds > 0) {
    list.ok("timeout", fmt::format("{:g} s per call (KX_VISION_TIMEOUT_S)", seconds));
  } else {
    list.failure("timeout",
                 fmt::format("{:g} s per call: KX_VISION_TIMEOUT_S is \"{}\", which is ignored",
                             vision::DEFAULT_TIMEOUT_S, value),
                 "set it to seconds above 0, such as 20 or 7.5, or remove it");
  }
}

}  // namespace

void check_switches(Checklist& list) {
  check_tier(list);
  check_timeout(list);
}

std::string check_key(Checklist& list) {
  try {
    std::string key = vision::detail::resolve_api_key("");
    const std::string found = fmt::format("found in ANTHROPIC_API_KEY, {} characters", key.size());
    if (key.front() == '"' || key.front() == '\'') {
      list.warning("key", found + ", the first a quotation mark", "set it without the quotation marks");
    } else {
      list.ok("key", found);
    }
    return key;
  } catch (const std::invalid_argument& error) {
    list.failure("key", error.what(), "copy the key again, without quotes or line ends");
  } catch (const std::runtime_error&) {
    list.failure("key", "no key: ANTHROPIC_API_KEY is not set",
                 "set it, or have the pipeline pass api_key or a registry with resolve_api_key");
  }
  return "";
}

}  // namespace check
