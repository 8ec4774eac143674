#pragma once

#include <napi.h>

#include "bindings/node/src/environment.hpp"

namespace vision_node {

/// setLog(level): sends the process's log lines to this environment's JavaScript, in place
/// of any other's; level 0 puts standard output back.
void set_log(const Napi::CallbackInfo& info);

/// Puts standard output back when the lines go to this environment.
void stop_logging_to(const Environment& environment);

}  // namespace vision_node
