#pragma once

#include <napi.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>

#include "bindings/c/vision.h"

namespace vision_node {

class Environment;

/// What the C interface calls the host by: an environment, and the number by which its
/// JavaScript knows the operation, the client or the error.
struct Host {
  std::shared_ptr<Environment> environment;
  double number;

  static Host& of(void* host) { return *static_cast<Host*>(host); }
};

/// One environment of Node: the main thread's or a worker's, with a runtime of its own
/// and the way back onto its thread.
class Environment : public std::enable_shared_from_this<Environment> {
 public:
  /// Runs on the environment's thread, with the JavaScript function that gets all events.
  using Job = std::function<void(Napi::Env, Napi::Function dispatch)>;

  /// Makes the environment's own; it ends with the environment.
  static void make(Napi::Env env, Napi::Function dispatch);
  /// The one of the environment's thread.
  static std::shared_ptr<Environment> of(Napi::Env env);
  /// On the environment's thread.
  Napi::Env env() const { return dispatch_.Env(); }

  /// Runs a job later. From any thread. Once the environment has ended the job is dropped.
  void post(Job job);
  /// Calls the JavaScript function that gets all events, at once. On the environment's
  /// thread.
  void dispatch(std::initializer_list<napi_value> arguments) { dispatch_.Call(arguments); }

  /// Started by the first call, which throws when it cannot be. On the environment's
  /// thread, as all below.
  vision_runtime* runtime(Napi::Env env);
  /// The environment itself to the C interface, as long as it has a runtime.
  void* host() { return &host_; }

  ///@{
  /// Between the two an operation keeps the process alive.
  void operation_begins(Napi::Env env);
  void operation_ended(Napi::Env env);
  ///@}

 private:
  static void run(Napi::Env env, Napi::Function dispatch, std::nullptr_t* context, Job* job);
  using ThreadSafeFunction = Napi::TypedThreadSafeFunction<std::nullptr_t, Job, run>;

  void end();

  vision_runtime* runtime_ = nullptr;
  std::size_t in_flight_ = 0;
  Napi::FunctionReference dispatch_;
  Host host_;         // until the end
  std::mutex mutex_;  // over the two below
  ThreadSafeFunction to_javascript_;
  bool has_ended_ = false;
};

/// Throws vision_last_error as a JavaScript error with a `kind`.
[[noreturn]] void throw_last_error(Napi::Env env);

}  // namespace vision_node
