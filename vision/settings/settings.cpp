#include "vision/settings/settings.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "vision/settings/internal/defaults.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision {
namespace {

struct Models {
  std::string light, heavy;
};

struct Host {
  std::mutex mutex;
  std::shared_ptr<const ModelRegistry> registry;
  std::optional<Models> models;
};

Host& host() {
  static Host* const instance = new Host;  // outlives the destructors of static clients
  return *instance;
}

// The host's code is not called under the lock.
const Models& models() {
  Host& h = host();
  std::unique_lock lock(h.mutex);
  if (h.models) return *h.models;
  const auto registry = h.registry;
  lock.unlock();
  if (!registry) {
    throw std::runtime_error(
        "vision: no model registry. Call vision::set_model_registry() with VISION_LIGHT_MODEL and "
        "VISION_HEAVY_MODEL before the first use.");
  }
  Models copy{registry->VISION_LIGHT_MODEL(), registry->VISION_HEAVY_MODEL()};
  if (copy.light.empty() || copy.heavy.empty()) {
    throw std::runtime_error(std::string("vision: the model registry returns an empty ") +
                             (copy.light.empty() ? "VISION_LIGHT_MODEL" : "VISION_HEAVY_MODEL") + ".");
  }
  lock.lock();
  return h.models ? *h.models : h.models.emplace(std::move(copy));
}

}  // namespace

void set_model_registry(std::shared_ptr<const ModelRegistry> registry) {
  if (!registry) throw std::invalid_argument("set_model_registry: the registry is null");
  Host& h = host();
  const std::lock_guard lock(h.mutex);
  if (h.models) {
    throw std::logic_error("set_model_registry: the model identifiers are in use already (" + h.models->light + ", " +
                           h.models->heavy + ")");
  }
  h.registry = std::move(registry);
}

std::shared_ptr<const ModelRegistry> model_registry() {
  Host& h = host();
  const std::lock_guard lock(h.mutex);
  return h.registry;
}

const std::string& MODEL_SONNET() {
  return models().light;
}
const std::string& MODEL_OPUS() {
  return models().heavy;
}

std::string_view is_vision_enabled() noexcept {
  const char* value = std::getenv("KX_VISION_TIER");
  const std::string_view tier = text::trim(value ? value : "");
  const auto is = [tier](std::string_view name) {
    return std::equal(tier.begin(), tier.end(), name.begin(), name.end(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; });
  };
  if (is("act")) return "tier2";
  constexpr std::array<std::string_view, 3> modes = {"shadow", "tier2", "tier3"};
  const auto mode = std::find_if(modes.begin(), modes.end(), is);
  return mode == modes.end() ? "off" : *mode;
}

namespace detail {

double timeout_from_text(const char* text) noexcept {
  constexpr double fallback = 20.0;
  if (!text) return fallback;
  const double value = text::parse_real(text).value_or(fallback);
  return std::isfinite(value) && value > 0 ? value : fallback;
}

double default_timeout_s() noexcept {
  static const double value = timeout_from_text(std::getenv("KX_VISION_TIMEOUT_S"));
  return value;
}

PriceMap make_price_map(const std::string& light, double light_price, const std::string& heavy, double heavy_price) {
  if (light == heavy) return {{heavy, heavy_price}};
  return {{light, light_price}, {heavy, heavy_price}};
}

const PriceMap& COST_PER_MTOK_INPUT() {
  static const PriceMap prices = make_price_map(MODEL_SONNET(), 3.0, MODEL_OPUS(), 5.0);
  return prices;
}

const PriceMap& COST_PER_MTOK_OUTPUT() {
  static const PriceMap prices = make_price_map(MODEL_SONNET(), 15.0, MODEL_OPUS(), 25.0);
  return prices;
}

}  // namespace detail
}  // namespace vision
