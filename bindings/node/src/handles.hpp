#pragma once

#include <napi.h>

#include <memory>

#include "bindings/c/vision.h"

namespace vision_node {

/// A handle of the C interface as a JavaScript value, released by the collector.
template <class T, void (*Release)(T*)>
struct Handle {
  template <class Deleter>
  static Napi::Value make(Napi::Env env, std::unique_ptr<T, Deleter> handle) {
    return Napi::External<T>::New(env, handle.release(), [](Napi::Env, T* owned) { Release(owned); });
  }

  /// Null for a value that is no handle.
  static T* get(const Napi::Value& value) {
    return value.IsExternal() ? value.As<Napi::External<T>>().Data() : nullptr;
  }
};

using PageHandle = Handle<vision_page, vision_page_release>;
using ClientHandle = Handle<vision_client, vision_client_release>;
using BrowserHandle = Handle<vision_browser, vision_browser_release>;

}  // namespace vision_node
