#include "vision/client/internal/api_key.hpp"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail {
namespace {

std::string key_from_registry() {
  const auto registry = model_registry();
  if (!registry) return {};
  try {
    const auto resolve = registry->core_attr("resolve_api_key");
    return resolve ? resolve() : std::string();
  } catch (...) {
    return {};  // the environment is asked next
  }
}

}  // namespace

// A key of blanks is not skipped: whoever set it meant it to be used, and asking
// with another key would hide the mistake.
std::string resolve_api_key(const std::string& given) {
  if (!given.empty()) return clean_api_key(given, "the api_key argument");
  if (const std::string key = key_from_registry(); !key.empty()) {
    return clean_api_key(key, "the model registry's resolve_api_key");
  }
  if (const char* key = std::getenv("ANTHROPIC_API_KEY"); key && *key) {
    return clean_api_key(key, "the environment variable ANTHROPIC_API_KEY");
  }
  throw std::runtime_error("VisionClient: no API key. Pass api_key= or set ANTHROPIC_API_KEY.");
}

std::string clean_api_key(std::string_view key, std::string_view source) {
  const auto refuse = [&](const std::string& why) {
    throw std::invalid_argument("the API key from " + std::string(source) + " " + why);
  };
  key = text::trim(key);
  if (key.empty()) refuse("is blank");
  const auto bad = std::find_if(key.begin(), key.end(), [](char c) { return c <= ' ' || c >= '\x7f'; });
  if (bad != key.end()) {
    const auto code = static_cast<unsigned char>(*bad);
    const char* const kind = code == ' ' ? "a blank" : code >= 0x80 ? "a non-ASCII character" : "a control character";
    refuse(std::string("contains ") + kind + " at position " + std::to_string(bad - key.begin() + 1) +
           "; only visible ASCII is allowed");
  }
  return std::string(key);
}

}  // namespace vision::detail
