#pragma once

#include <napi.h>

#include "bindings/c/vision.h"

namespace vision_node {

/// The bytes of a Uint8Array, without a copy: JavaScript's collector keeps them until the
/// image is released.
vision_image from_javascript(Napi::Env env, Napi::Value bytes);

/// An image of the library's as a Buffer, without a copy: the collector releases it.
Napi::Value to_javascript(Napi::Env env, const vision_image& image);

}  // namespace vision_node
