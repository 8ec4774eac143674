#pragma once

#include "bindings/c/vision.h"

namespace vision_node {

/// The host's side of the C interface. Each function tells the environment's JavaScript
/// what is asked, as the event of that name with the Host's number, the reply and the
/// arguments; JavaScript answers through the reply.
extern const vision_page_functions page_functions;
extern const vision_client_functions client_functions;
extern const vision_mode_functions mode_functions;

/// The same, at once: the C interface calls it on the environment's thread.
void resolve_api_key(void* host, vision_reply reply);

/// Forgets an error of the host's; its token is a Host.
void release_error(void* token);

}  // namespace vision_node
