#pragma once

#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/session.hpp"

namespace vision::chromium {

/// Brings a page to the front of its window before input: a hidden page handles a mouse
/// event after 5 s and a wheel event never. The browser handles commands in order, so
/// nothing needs to wait for the reply.
inline void bring_to_front(Session& session) {
  session.send_and_forget("Page.bringToFront", make_object());
}

}  // namespace vision::chromium
