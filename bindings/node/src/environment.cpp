#include "bindings/node/src/environment.hpp"

#include <string>
#include <utility>

#include "bindings/node/src/log.hpp"

namespace vision_node {

using Shared = std::shared_ptr<Environment>;

void Environment::make(Napi::Env env, Napi::Function dispatch) {
  auto environment = std::make_shared<Environment>();
  environment->host_ = Host{environment, 0};
  environment->dispatch_ = Napi::Persistent(dispatch);
  environment->dispatch_.SuppressDestruct();  // the environment releases it
  environment->to_javascript_ = ThreadSafeFunction::New(env, dispatch, "@velmora/vision", 0, 1);
  environment->to_javascript_.Unref(env);
  // Hooks run in reverse order: this one while the thread-safe function still exists.
  env.AddCleanupHook([environment] { environment->end(); });
  env.SetInstanceData(new Shared(environment));
}

Shared Environment::of(Napi::Env env) {
  return *env.GetInstanceData<Shared>();
}

// While an environment ends it still gets here, with an `env` that runs no JavaScript.
void Environment::run(Napi::Env env, Napi::Function dispatch, std::nullptr_t*, Job* job) {
  const std::unique_ptr<Job> owned(job);
  if (env == nullptr) return;
  try {
    (*job)(env, dispatch);
  } catch (const Napi::Error& error) {
    error.ThrowAsJavaScriptException();
  }
}

void Environment::post(Job job) {
  const std::lock_guard lock(mutex_);
  if (has_ended_) return;
  auto owned = std::make_unique<Job>(std::move(job));
  if (to_javascript_.NonBlockingCall(owned.get()) == napi_ok) owned.release();
}

vision_runtime* Environment::runtime(Napi::Env env) {
  if (!runtime_) runtime_ = vision_runtime_new();
  if (!runtime_) throw_last_error(env);
  return runtime_;
}

void Environment::operation_begins(Napi::Env env) {
  if (in_flight_++ == 0) to_javascript_.Ref(env);
}

void Environment::operation_ended(Napi::Env env) {
  if (--in_flight_ == 0) to_javascript_.Unref(env);
}

void Environment::end() {
  stop_logging_to(*this);
  vision_runtime_free(std::exchange(runtime_, nullptr));
  host_.environment.reset();
  const std::lock_guard lock(mutex_);
  has_ended_ = true;
}

void throw_last_error(Napi::Env env) {
  const vision_error* error = vision_last_error();
  Napi::Error thrown = Napi::Error::New(env, std::string(error->message, error->message_size));
  thrown.Set("kind", error->kind);
  throw thrown;
}

}  // namespace vision_node
