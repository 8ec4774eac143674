#include "bindings/node/src/image.hpp"

#include <memory>
#include <utility>

#include "bindings/node/src/environment.hpp"

namespace vision_node {
namespace {

struct Held {
  std::shared_ptr<Environment> environment;
  Napi::Reference<Napi::Uint8Array> bytes;
};

// A job that is dropped leaves the reference to the end of its environment.
void release(void* owner) {
  auto* held = static_cast<Held*>(owner);
  const auto environment = held->environment;
  environment->post([held](Napi::Env, Napi::Function) {
    held->bytes.Reset();
    delete held;
  });
}

}  // namespace

vision_image from_javascript(Napi::Env env, Napi::Value bytes) {
  if (!bytes.IsTypedArray() || bytes.As<Napi::TypedArray>().TypedArrayType() != napi_uint8_array) {
    throw Napi::TypeError::New(env, "an image must be a Buffer or a Uint8Array");
  }
  const auto array = bytes.As<Napi::Uint8Array>();
  auto held = std::make_unique<Held>(Held{Environment::of(env), Napi::Persistent(array)});
  return {array.Data(), array.ByteLength(), release, held.release()};
}

Napi::Value to_javascript(Napi::Env env, const vision_image& image) {
  auto* data = static_cast<char*>(const_cast<void*>(image.data));  // who writes to it harms nobody else
  return Napi::Buffer<char>::NewOrCopy(env, data, image.size,
                                       [image](Napi::Env, char*) { image.release(image.owner); });
}

}  // namespace vision_node
