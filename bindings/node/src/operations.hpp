#pragma once

#include <napi.h>

namespace vision_node {

/// start(number, operation, options, parts): starts an operation and returns its number
/// in the C interface, a BigInt. `options` is a JSON text. `parts` is an object: `page` is
/// a handle, or true for a page of the host's; `client` and `browser` are handles; `image`
/// is a Uint8Array; `primaryFn`, `cuaFn`, `cuaFallback` and `shouldAbort` are there when
/// the host has that function. Ends with the event "done": number, error, value, image,
/// page, browser.
Napi::Value start(const Napi::CallbackInfo& info);
/// cancel(operation)
void cancel(const Napi::CallbackInfo& info);

///@{
/// replyValue(reply, json), replyImage(reply, bytes),
/// replyError(reply, kind, message, flags, number of the error)
void reply_value(const Napi::CallbackInfo& info);
void reply_image(const Napi::CallbackInfo& info);
void reply_error(const Napi::CallbackInfo& info);
///@}

}  // namespace vision_node
