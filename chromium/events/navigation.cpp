#include "chromium/events/navigation.hpp"

#include "chromium/protocol/json_object.hpp"

namespace vision::chromium {

// A load event alone is not enough: the previous document's may still be on its way.
void LoadWaiter::handle_event(std::string_view method, const boost::json::object& params) {
  if (method == "Page.frameNavigated") {
    const auto& frame = object_of(params, "frame");
    if (!frame.contains("parentId")) committed_.emplace(text_of(frame, "loaderId"));
  } else if (method == "Page.lifecycleEvent" && text_of(params, "name") == "load") {
    if (committed_.contains(text_of(params, "loaderId"))) succeed();
  }
}

}  // namespace vision::chromium
