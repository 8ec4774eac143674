#include "bindings/node/src/host_functions.hpp"

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "bindings/node/src/environment.hpp"

namespace vision_node {
namespace {

using Argument = std::variant<bool, double, std::string>;
using Arguments = std::vector<Argument>;

napi_value to_value(Napi::Env env, const Argument& argument) {
  if (const auto* is = std::get_if<bool>(&argument)) return Napi::Boolean::New(env, *is);
  if (const auto* number = std::get_if<double>(&argument)) return Napi::Number::New(env, *number);
  return Napi::String::New(env, std::get<std::string>(argument));
}

void tell(void* host, const char* event, vision_reply reply, Arguments arguments = {}) {
  const double number = Host::of(host).number;
  Host::of(host).environment->post(
      [event, number, reply, arguments = std::move(arguments)](Napi::Env env, Napi::Function dispatch) {
        std::vector<napi_value> values = {Napi::String::New(env, event), Napi::Number::New(env, number),
                                          Napi::BigInt::New(env, reply)};
        for (const auto& argument : arguments) values.push_back(to_value(env, argument));
        dispatch.Call(values);
      });
}

template <const char* const& Event>
void ask(void* host, vision_reply reply) {
  tell(host, Event, reply);
}

constexpr const char* viewport_size = "viewportSize";
constexpr const char* primary_fn = "primaryFn";
constexpr const char* cua_fn = "cuaFn";
constexpr const char* should_abort = "shouldAbort";

void screenshot(void* host, int full_page, vision_reply reply) {
  tell(host, "screenshot", reply, {full_page != 0});
}

void evaluate(void* host, const char* expression, size_t size, vision_reply reply) {
  tell(host, "evaluate", reply, {std::string(expression, size)});
}

void mouse_click(void* host, double x, double y, vision_reply reply) {
  tell(host, "mouseClick", reply, {x, y});
}

void mouse_wheel(void* host, double delta_x, double delta_y, vision_reply reply) {
  tell(host, "mouseWheel", reply, {delta_x, delta_y});
}

void keyboard_type(void* host, const char* text, size_t size, double delay_ms, vision_reply reply) {
  tell(host, "keyboardType", reply, {std::string(text, size), delay_ms});
}

void keyboard_press(void* host, const char* key, size_t size, vision_reply reply) {
  tell(host, "keyboardPress", reply, {std::string(key, size)});
}

void release(void* host) {
  delete &Host::of(host);
}

void cua_fallback(void* host, const char* context, size_t context_size, const char* reason, size_t reason_size,
                  vision_reply reply) {
  tell(host, "cuaFallback", reply, {std::string(context, context_size), std::string(reason, reason_size)});
}

void on_action(void* host, const char* result, size_t result_size, const char* flow_context, size_t flow_context_size,
               vision_reply reply) {
  tell(host, "onAction", reply, {std::string(result, result_size), std::string(flow_context, flow_context_size)});
}

void create(void* host, const char* request, size_t size, vision_reply reply) {
  tell(host, "create", reply, {std::string(request, size)});
}

void release_client(void* host) {
  tell(host, "releaseClient", 0);
  release(host);
}

}  // namespace

const vision_page_functions page_functions = {screenshot,  evaluate,      ask<viewport_size>, mouse_click,
                                              mouse_wheel, keyboard_type, keyboard_press,     release};
const vision_client_functions client_functions = {on_action, create, release_client};
const vision_mode_functions mode_functions = {ask<primary_fn>, ask<cua_fn>, cua_fallback, ask<should_abort>};

void resolve_api_key(void* host, vision_reply reply) {
  Environment& environment = *Host::of(host).environment;
  const Napi::Env env = environment.env();
  environment.dispatch(
      {Napi::String::New(env, "resolveApiKey"), Napi::Number::New(env, 0), Napi::BigInt::New(env, reply)});
}

void release_error(void* token) {
  tell(token, "releaseError", 0);
  release(token);
}

}  // namespace vision_node
