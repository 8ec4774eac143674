#pragma once

#include <napi.h>

#include "bindings/node/src/environment.hpp"

namespace vision_node {

/// setLog(level): sends the process's log lines to this environment's JavaScript; level 0
/// leaves them to the environment that has set it before this one, or to standard output.
void set_log(const Napi::CallbackInfo& info);

/// The same as level 0, at the environment's end.
void stop_logging_to(const Environment& environment);

}  // namespace vision_node
