#pragma once

#include "vision/testing/scripted_model.hpp"
#include "vision/testing/scripted_page.hpp"
#include "vision/vision.hpp"

namespace vision::test {

/// The registry of every test program. Its key resolver can be replaced.
class TestRegistry : public StaticModelRegistry {
 public:
  TestRegistry() : StaticModelRegistry("light-model", "heavy-model") {}
  std::function<std::string()> core_attr(std::string_view name) const override {
    return name == "resolve_api_key" ? resolver : nullptr;
  }
  std::function<std::string()> resolver;

  static TestRegistry& instance() {
    static const auto made = std::make_shared<TestRegistry>();
    [[maybe_unused]] static const bool is_set = (set_model_registry(made), true);
    return *made;
  }
};

/// The error type of page drivers, agents and other host code.
struct HostError : std::runtime_error, CuaOriginMark {
  using std::runtime_error::runtime_error;
};

}  // namespace vision::test
