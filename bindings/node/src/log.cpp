#include "bindings/node/src/log.hpp"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace vision_node {
namespace {

struct Receiver {
  std::unique_ptr<Host> host;
  int level;
};

// Of the lines, in the order in which they were set: the last one gets them.
std::mutex mutex;
std::vector<Receiver> receivers;

void log(void* host, int level, const char* line, size_t size) {
  Host::of(host).environment->post([level, text = std::string(line, size)](Napi::Env env, Napi::Function dispatch) {
    dispatch.Call({Napi::String::New(env, "log"), Napi::Number::New(env, level), Napi::String::New(env, text)});
  });
}

// Under the mutex. An environment that ends, or sets none, leaves the lines to the one before.
void replace(const Environment& environment, Receiver next) {
  const auto own = std::find_if(receivers.begin(), receivers.end(), [&](const Receiver& receiver) {
    return receiver.host->environment.get() == &environment;
  });
  const Receiver earlier = own == receivers.end() ? Receiver{} : std::move(*own);
  if (own != receivers.end()) receivers.erase(own);
  if (next.host) receivers.push_back(std::move(next));
  if (receivers.empty()) {
    vision_set_log(nullptr, nullptr, VISION_LOG_INFO);
  } else {
    vision_set_log(log, receivers.back().host.get(), receivers.back().level);
  }
}

}  // namespace

void set_log(const Napi::CallbackInfo& info) {
  const auto environment = Environment::of(info.Env());
  const int level = info[0].As<Napi::Number>().Int32Value();
  auto host = level == 0 ? nullptr : std::make_unique<Host>(Host{environment, 0});
  const std::lock_guard lock(mutex);
  replace(*environment, {std::move(host), level});
}

void stop_logging_to(const Environment& environment) {
  const std::lock_guard lock(mutex);
  replace(environment, {});
}

}  // namespace vision_node
