#include "chromium/events/dialogs.hpp"

#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/session.hpp"

namespace vision::chromium {
namespace json = boost::json;

void Dialogs::handle_event(std::string_view method, const json::object& params) {
  if (method == "Page.javascriptDialogClosed") {
    open_.reset();
  } else if (method == "Page.javascriptDialogOpening") {
    open_ = std::make_shared<const bool>(text_of(params, "type") == "beforeunload");
    const std::weak_ptr<const bool> seen = open_;
    session_.send_then("Target.getTargetInfo", {}, [this, seen](const json::object&) {
      if (const auto accept = seen.lock()) {  // and with it this object
        session_.send_and_forget("Page.handleJavaScriptDialog", make_object("accept", *accept));
      }
    });
  }
}

}  // namespace vision::chromium
