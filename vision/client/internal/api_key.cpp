#include "vision/client/internal/api_key.hpp"

#include <cstdlib>
#include <stdexcept>

#include "vision/settings/model_registry.hpp"

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

std::string resolve_api_key(const std::string& given) {
  if (!given.empty()) return given;
  if (std::string key = key_from_registry(); !key.empty()) return key;
  if (const char* key = std::getenv("ANTHROPIC_API_KEY"); key && *key) return key;
  throw std::runtime_error("VisionClient: no API key. Pass api_key= or set ANTHROPIC_API_KEY.");
}

}  // namespace vision::detail
