#include "chromium/events/popups.hpp"

#include <boost/json/array.hpp>
#include <utility>

#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/fields.hpp"
#include "chromium/protocol/session.hpp"

namespace vision::chromium {
namespace json = boost::json;

void answer_dialog(Session& session, const json::object& opening) {
  const bool leaving = text_of(opening, "type") == "beforeunload";
  session.post("Page.handleJavaScriptDialog", fields("accept", leaving));
}

Windows::Windows(std::shared_ptr<Connection> connection, std::shared_ptr<Session> browser)
    : connection_(std::move(connection)), browser_(std::move(browser)) {}

json::object Windows::auto_attach() {
  const json::array filter = {fields("type", "page")};
  return fields("autoAttach", true, "waitForDebuggerOnStart", true, "flatten", true, "filter", filter);
}

void Windows::see(std::string_view method, const json::object& params) {
  const std::string session_id(text_of(params, "sessionId"));
  if (method == "Target.detachedFromTarget") return end(session_id);
  const auto* waiting = params.if_contains("waitingForDebugger");
  const bool is_new = method == "Target.attachedToTarget" && waiting && waiting->is_bool() && waiting->get_bool();
  if (is_new) begin(session_id, object_of(params, "targetInfo"));
}

void Windows::begin(const std::string& session_id, const json::object& info) {
  Window& window = windows_[session_id];
  window.session = connection_->session(session_id);
  window.target = text_of(info, "targetId");
  window.opener = text_of(info, "openerId");
  Session* const session = window.session.get();  // which holds the handler
  session->on_event([session](std::string_view method, const json::object& params) {
    if (method == "Page.javascriptDialogOpening") answer_dialog(*session, params);
  });
  session->post("Page.enable", {});
  session->post("Runtime.runIfWaitingForDebugger", {});
}

void Windows::end(const std::string& session_id) {
  const auto found = windows_.find(session_id);
  if (found == windows_.end()) return;
  const std::string gone = std::move(found->second.target);
  windows_.erase(found);
  for (const auto& [id, window] : windows_) {
    if (window.opener == gone) browser_->post("Target.closeTarget", fields("targetId", window.target));
  }
}

}  // namespace vision::chromium
