#include "bindings/node/src/operations.hpp"

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "bindings/node/src/environment.hpp"
#include "bindings/node/src/handles.hpp"
#include "bindings/node/src/host_functions.hpp"
#include "bindings/node/src/image.hpp"

namespace vision_node {
namespace {

std::uint64_t number_of(const Napi::Value& value) {
  bool is_lossless = false;
  return value.As<Napi::BigInt>().Uint64Value(&is_lossless);
}

std::string text_of(const Napi::Value& value) {
  return value.As<Napi::String>().Utf8Value();
}

// What vision_error says, kept for the environment's thread.
struct Failure {
  explicit Failure(const vision_error& error)
      : kind(error.kind), message(error.message, error.message_size), flags(error.flags) {
    if (error.token) number = Host::of(error.token).number;
  }

  Napi::Object to_object(Napi::Env env) const {
    Napi::Object object = Napi::Object::New(env);
    object.Set("kind", kind);
    object.Set("message", message);
    object.Set("isCancelled", (flags & VISION_CANCELLED) != 0);
    object.Set("isFromCua", (flags & VISION_CUA_ORIGIN) != 0);
    if (number) object.Set("number", *number);
    return object;
  }

  std::string kind, message;
  unsigned flags;
  std::optional<double> number;  // of the host's own error
};

// How an operation ended, kept for the environment's thread; releases what that never gets.
struct Ending {
  explicit Ending(const vision_result& result)
      : value(result.value ? result.value : "", result.value_size),
        image(result.image),
        page(result.page, vision_page_release),
        browser(result.browser, vision_browser_release) {
    if (result.error) failure.emplace(*result.error);
  }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  ~Ending() {
    if (image.release) image.release(image.owner);
  }

  void tell(Napi::Env env, Napi::Function dispatch, double number) {
    const napi_value none = env.Undefined();
    dispatch.Call({Napi::String::New(env, "done"), Napi::Number::New(env, number),
                   failure ? failure->to_object(env) : none, Napi::String::New(env, value),
                   image.release ? to_javascript(env, std::exchange(image, {})) : none,
                   page ? PageHandle::make(env, std::move(page)) : none,
                   browser ? BrowserHandle::make(env, std::move(browser)) : none});
  }

  std::optional<Failure> failure;
  std::string value;
  vision_image image;
  std::unique_ptr<vision_page, decltype(&vision_page_release)> page;
  std::unique_ptr<vision_browser, decltype(&vision_browser_release)> browser;
};

void done(void* host, const vision_result* result) {
  const std::unique_ptr<Host> owned(&Host::of(host));
  const double number = owned->number;
  const auto ending = std::make_shared<Ending>(*result);
  owned->environment->post([number, ending](Napi::Env env, Napi::Function dispatch) {
    Environment::of(env)->operation_ended(env);
    ending->tell(env, dispatch, number);
  });
}

vision_mode_functions functions_of(const Napi::Object& parts) {
  vision_mode_functions functions = mode_functions;
  if (!parts.Has("primaryFn")) functions.primary_fn = nullptr;
  if (!parts.Has("cuaFn")) functions.cua_fn = nullptr;
  if (!parts.Has("cuaFallback")) functions.cua_fallback = nullptr;
  if (!parts.Has("shouldAbort")) functions.should_abort = nullptr;
  return functions;
}

}  // namespace

Napi::Value start(const Napi::CallbackInfo& info) {
  const Napi::Env env = info.Env();
  const auto environment = Environment::of(env);
  vision_runtime* runtime = environment->runtime(env);
  const double number = info[0].As<Napi::Number>();
  const std::string operation = text_of(info[1]);
  const std::string options = text_of(info[2]);
  const auto parts = info[3].As<Napi::Object>();
  const vision_mode_functions functions = functions_of(parts);
  const bool has_image = parts.Has("image");
  const vision_image image = has_image ? from_javascript(env, parts.Get("image")) : vision_image{};

  vision_call call = {};
  call.options = options.data();
  call.options_size = options.size();
  call.client = ClientHandle::get(parts.Get("client"));
  call.browser = BrowserHandle::get(parts.Get("browser"));
  call.page = PageHandle::get(parts.Get("page"));
  call.image = has_image ? &image : nullptr;
  call.functions = &functions;
  call.done = done;
  auto host = std::make_unique<Host>(Host{environment, number});
  call.host = host.get();

  // The operation keeps the page: of the host's pages each operation has one of its own.
  std::unique_ptr<vision_page, decltype(&vision_page_release)> own_page(nullptr, vision_page_release);
  if (parts.Get("page").IsBoolean()) {
    auto of_page = std::make_unique<Host>(*host);
    own_page.reset(vision_page_new(runtime, &page_functions, of_page.get()));
    if (!own_page) throw_last_error(env);
    of_page.release();
    call.page = own_page.get();
  }
  environment->operation_begins(env);
  const vision_operation started = vision_start(runtime, operation.c_str(), &call);
  if (started == 0) {
    environment->operation_ended(env);
    throw Napi::Error::New(env, "the environment is ending");
  }
  host.release();
  return Napi::BigInt::New(env, started);
}

void cancel(const Napi::CallbackInfo& info) {
  vision_cancel(number_of(info[0]));
}

void reply_value(const Napi::CallbackInfo& info) {
  const std::string json = text_of(info[1]);
  vision_reply_value(number_of(info[0]), json.data(), json.size());
}

void reply_image(const Napi::CallbackInfo& info) {
  const vision_image image = from_javascript(info.Env(), info[1]);
  vision_reply_image(number_of(info[0]), &image);
}

void reply_error(const Napi::CallbackInfo& info) {
  const std::string kind = text_of(info[1]);
  const std::string message = text_of(info[2]);
  vision_error error = {};
  error.kind = kind.c_str();
  error.message = message.data();
  error.message_size = message.size();
  error.flags = info[3].As<Napi::Number>();
  error.token = new Host{Environment::of(info.Env()), info[4].As<Napi::Number>()};
  error.release = release_error;
  vision_reply_error(number_of(info[0]), &error);
}

}  // namespace vision_node
