// The C interface as JavaScript functions, for lib/, which decides everything.
#include <napi.h>

#include <string>
#include <string_view>

#include "bindings/node/src/clients.hpp"
#include "bindings/node/src/environment.hpp"
#include "bindings/node/src/log.hpp"
#include "bindings/node/src/operations.hpp"

namespace vision_node {
namespace {

// begin(dispatch): to be called first; `dispatch` gets every event.
void begin(const Napi::CallbackInfo& info) {
  Environment::make(info.Env(), info[0].As<Napi::Function>());
}

Napi::Value is_vision_enabled(const Napi::CallbackInfo& info) {
  return Napi::String::New(info.Env(), vision_is_vision_enabled());
}

Napi::Value shadow_log_losses(const Napi::CallbackInfo& info) {
  return Napi::Number::New(info.Env(), static_cast<double>(vision_shadow_log_losses()));
}

Napi::Value fixture_losses(const Napi::CallbackInfo& info) {
  return Napi::Number::New(info.Env(), static_cast<double>(vision_fixture_losses()));
}

Napi::Object initialise(Napi::Env env, Napi::Object exports) {
  if (std::string_view(vision_version()) != VISION_VERSION) {  // structures and names may differ
    throw Napi::Error::New(env, "it needs libvision_c " VISION_VERSION " and found " + std::string(vision_version()));
  }
  const auto add = [&](const char* name, auto function) {
    exports.Set(name, Napi::Function::New(env, function, name));
  };
  add("begin", begin);
  add("start", start);
  add("cancel", cancel);
  add("replyValue", reply_value);
  add("replyImage", reply_image);
  add("replyError", reply_error);
  add("setModelRegistry", set_model_registry);
  add("newClient", new_client);
  add("defaultClient", default_client);
  add("metrics", metrics);
  add("resetMetrics", reset_metrics);
  add("resetDefaultMetrics", reset_default_metrics);
  add("setLog", set_log);
  add("isVisionEnabled", is_vision_enabled);
  add("shadowLogLosses", shadow_log_losses);
  add("fixtureLosses", fixture_losses);
  exports.Set("version", Napi::String::New(env, vision_version()));
  return exports;
}

}  // namespace
}  // namespace vision_node

using vision_node::initialise;
NODE_API_MODULE(vision, initialise)
