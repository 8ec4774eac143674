#include "bindings/node/src/clients.hpp"

#include <memory>
#include <string>
#include <utility>

#include "bindings/node/src/environment.hpp"
#include "bindings/node/src/handles.hpp"
#include "bindings/node/src/host_functions.hpp"

namespace vision_node {
namespace {

using OwnedClient = std::unique_ptr<vision_client, decltype(&vision_client_release)>;

Napi::Value handle_of(Napi::Env env, vision_client* client) {
  if (!client) throw_last_error(env);
  return ClientHandle::make(env, OwnedClient(client, vision_client_release));
}

}  // namespace

void set_model_registry(const Napi::CallbackInfo& info) {
  const Napi::Env env = info.Env();
  const auto environment = Environment::of(env);
  const std::string light = info[0].As<Napi::String>();
  const std::string heavy = info[1].As<Napi::String>();
  const vision_key_resolver resolver = info[2].As<Napi::Boolean>() ? resolve_api_key : nullptr;
  if (!vision_set_model_registry(environment->runtime(env), light.c_str(), heavy.c_str(), resolver,
                                 environment->host())) {
    throw_last_error(env);
  }
}

Napi::Value new_client(const Napi::CallbackInfo& info) {
  const Napi::Env env = info.Env();
  const auto environment = Environment::of(env);
  const std::string options = info[1].As<Napi::String>();
  vision_client_functions functions = client_functions;
  if (!info[2].As<Napi::Boolean>()) functions.on_action = nullptr;
  if (!info[3].As<Napi::Boolean>()) functions.create = nullptr;
  auto host = std::make_unique<Host>(Host{environment, info[0].As<Napi::Number>()});
  vision_client* client =
      vision_client_new(environment->runtime(env), options.data(), options.size(), &functions, host.get());
  if (client) host.release();
  return handle_of(env, client);
}

Napi::Value default_client(const Napi::CallbackInfo& info) {
  return handle_of(info.Env(), vision_default_client(Environment::of(info.Env())->runtime(info.Env())));
}

Napi::Value metrics(const Napi::CallbackInfo& info) {
  size_t size = 0;
  const char* json = vision_client_metrics(ClientHandle::get(info[0]), &size);
  return Napi::String::New(info.Env(), json, size);
}

void reset_metrics(const Napi::CallbackInfo& info) {
  vision_client_reset_metrics(ClientHandle::get(info[0]));
}

void reset_default_metrics(const Napi::CallbackInfo& info) {
  vision_reset_default_metrics(Environment::of(info.Env())->runtime(info.Env()));
}

}  // namespace vision_node
