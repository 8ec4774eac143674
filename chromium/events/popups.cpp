#include "chromium/events/popups.hpp"

#include <boost/json/array.hpp>
#include <utility>

#include "chromium/events/dialogs.hpp"
#include "chromium/events/emulation.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/session.hpp"

namespace vision::chromium {
namespace json = boost::json;

Popups::Popups(std::shared_ptr<Connection> connection, std::shared_ptr<Session> browser)
    : connection_(std::move(connection)), browser_session_(std::move(browser)) {}

Popups::~Popups() = default;

json::object Popups::auto_attach() {
  const json::array filter = {make_object("type", "page")};
  return make_object("autoAttach", true, "waitForDebuggerOnStart", true, "flatten", true, "filter", filter);
}

void Popups::handle_event(std::string_view method, const json::object& params) {
  const std::string session_id(text_of(params, "sessionId"));
  if (method == "Target.detachedFromTarget") return remove(session_id);
  // A window that does not wait is not new: it is one that new_page() or attach() opens
  // a session with.
  const auto* waiting = params.if_contains("waitingForDebugger");
  const bool is_new = method == "Target.attachedToTarget" && waiting && waiting->is_bool() && waiting->get_bool();
  if (is_new) add(session_id, object_of(params, "targetInfo"));
}

void Popups::add(const std::string& session_id, const json::object& target_info) {
  Window& window = windows_[session_id];
  window.session = connection_->session(session_id);
  window.target_id = text_of(target_info, "targetId");
  window.opener_id = text_of(target_info, "openerId");
  window.dialogs = std::make_unique<Dialogs>(*window.session);
  window.look = look_of(window.opener_id);
  Session& session = *window.session;
  session.set_event_handler([dialogs = window.dialogs.get()](std::string_view method, const json::object& params) {
    dialogs->handle_event(method, params);
  });
  session.send_and_forget("Page.enable", {});  // without it, no dialog is reported
  if (window.look) {
    for (const auto& [method, parameters] : emulation_of(*window.look)) session.send_and_forget(method, parameters);
  }
  session.send_and_forget("Runtime.runIfWaitingForDebugger", {});
}

std::optional<PageOptions> Popups::look_of(const std::string& target_id) const {
  for (const auto& [id, window] : windows_) {
    if (window.target_id == target_id) return window.look;
  }
  return std::nullopt;
}

void Popups::hand_over(const std::string& target_id, const PageOptions& look) {
  for (auto& [id, window] : windows_) {
    if (window.target_id != target_id) continue;
    window.look = look;
    window.session->set_event_handler(nullptr);
    window.session->send_and_forget("Page.disable", {});
    window.dialogs.reset();
  }
}

void Popups::remove(const std::string& session_id) {
  const auto found = windows_.find(session_id);
  if (found == windows_.end()) return;
  found->second.session->set_event_handler(nullptr);  // it refers to the dialogs
  const std::string gone = std::move(found->second.target_id);
  windows_.erase(found);
  // The windows that these have opened follow, as their own ends are reported.
  for (const auto& [id, window] : windows_) {
    if (window.opener_id == gone) {
      browser_session_->send_and_forget("Target.closeTarget", make_object("targetId", window.target_id));
    }
  }
}

}  // namespace vision::chromium
