#pragma once

#include <napi.h>

namespace vision_node {

/// setModelRegistry(light, heavy, whether there is a resolveApiKey)
void set_model_registry(const Napi::CallbackInfo& info);

/// newClient(number, options as JSON, whether there is an onAction, and a create):
/// returns a handle.
Napi::Value new_client(const Napi::CallbackInfo& info);
/// defaultClient(): returns a handle.
Napi::Value default_client(const Napi::CallbackInfo& info);

/// metrics(handle): returns JSON.
Napi::Value metrics(const Napi::CallbackInfo& info);
/// resetMetrics(handle)
void reset_metrics(const Napi::CallbackInfo& info);
/// resetDefaultMetrics()
void reset_default_metrics(const Napi::CallbackInfo& info);

}  // namespace vision_node
