#include "chromium/events/navigation.hpp"

#include <utility>

#include "chromium/errors.hpp"
#include "chromium/protocol/json_object.hpp"

namespace vision::chromium {

bool commits_document(std::string_view method, const boost::json::object& params) {
  return method == "Page.frameNavigated" && !object_of(params, "frame").contains("parentId");
}

LoadWaiter::LoadWaiter(std::shared_ptr<Session> session, List& all, std::string url)
    : Waiter(std::move(session)), all_(all), url_(std::move(url)) {
  all_.push_back(this);
}

// A load event alone is not enough: the previous document's may still be on its way.
void LoadWaiter::handle_event(std::string_view method, const boost::json::object& params) {
  if (commits_document(method, params)) {
    committed_.emplace(text_of(object_of(params, "frame"), "loaderId"));
  } else if (method == "Page.lifecycleEvent" && text_of(params, "name") == "load") {
    if (committed_.contains(text_of(params, "loaderId"))) succeed();
  }
}

void LoadWaiter::supersede_earlier() {
  for (LoadWaiter* earlier : all_) {
    if (earlier == this) return;
    earlier->fail(std::make_exception_ptr(
        NavigationError("cannot load " + earlier->url_ + ": replaced by a navigation to " + url_)));
  }
}

}  // namespace vision::chromium
