#include "bindings/node/src/log.hpp"

#include <mutex>
#include <string>

namespace vision_node {
namespace {

std::mutex mutex;
std::unique_ptr<Host> receiver;  // of the lines; under the mutex

void log(void* host, int level, const char* line, size_t size) {
  Host::of(host).environment->post([level, text = std::string(line, size)](Napi::Env env, Napi::Function dispatch) {
    dispatch.Call({Napi::String::New(env, "log"), Napi::Number::New(env, level), Napi::String::New(env, text)});
  });
}

}  // namespace

void set_log(const Napi::CallbackInfo& info) {
  const int level = info[0].As<Napi::Number>().Int32Value();
  const std::lock_guard lock(mutex);
  auto next = level == 0 ? nullptr : std::make_unique<Host>(Host{Environment::of(info.Env()), 0});
  vision_set_log(next ? log : nullptr, next.get(), level);
  receiver = std::move(next);
}

void stop_logging_to(const Environment& environment) {
  const std::lock_guard lock(mutex);
  if (!receiver || receiver->environment.get() != &environment) return;
  vision_set_log(nullptr, nullptr, VISION_LOG_INFO);
  receiver.reset();
}

}  // namespace vision_node
