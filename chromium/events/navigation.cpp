#include "chromium/events/navigation.hpp"

#include "chromium/protocol/fields.hpp"

namespace vision::chromium {

void LoadWaiter::see(std::string_view method, const boost::json::object& params) {
  if (method == "Page.frameNavigated") {
    const auto& frame = object_of(params, "frame");
    if (!frame.contains("parentId")) committed_.emplace(text_of(frame, "loaderId"));
  } else if (method == "Page.lifecycleEvent" && text_of(params, "name") == "load") {
    if (committed_.contains(text_of(params, "loaderId"))) finish();
  }
}

}  // namespace vision::chromium
