#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vision {

/// What the host application supplies: the choice of models, and optionally where the
/// API key comes from. Called on whichever thread needs it first. Exceptions from
/// VISION_LIGHT_MODEL() and VISION_HEAVY_MODEL() propagate to the caller that triggered
/// the lookup; if core_attr or the resolver throws, the environment is used instead.
class ModelRegistry {
 public:
  virtual ~ModelRegistry() = default;
  /// Identifier of the light model, the default for every call.
  virtual std::string VISION_LIGHT_MODEL() const = 0;
  /// Identifier of the heavy model, for high-stakes calls.
  virtual std::string VISION_HEAVY_MODEL() const = 0;
  /// An operation of the host by name, or null. The library asks for
  /// "resolve_api_key", which returns the API key; empty means that it knows none.
  virtual std::function<std::string()> core_attr(std::string_view name) const {
    (void)name;
    return nullptr;
  }
};

/// A registry of two fixed names, with the key left to the environment.
class StaticModelRegistry : public ModelRegistry {
 public:
  /// Model identifiers as the vendor writes them, neither empty.
  StaticModelRegistry(std::string light, std::string heavy) : light_(std::move(light)), heavy_(std::move(heavy)) {}
  std::string VISION_LIGHT_MODEL() const override { return light_; }
  std::string VISION_HEAVY_MODEL() const override { return heavy_; }

 private:
  std::string light_, heavy_;
};

/// Supplies the host's registry. Call it once, before the first VisionClient:
/// the two model identifiers are copied on first use and stay fixed for the life
/// of the process.
///
/// Throws std::invalid_argument for null, and std::logic_error when the
/// identifiers have been copied already.
void set_model_registry(std::shared_ptr<const ModelRegistry> registry);

/// The registry supplied, or null.
std::shared_ptr<const ModelRegistry> model_registry();

}  // namespace vision
