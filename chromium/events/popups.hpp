#pragma once

#include <boost/json/object.hpp>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace vision::chromium {

class Connection;
class Session;

/// Answers the dialogs that a page opens.
///
/// Leaving a page is agreed to; all else is dismissed.
void answer_dialog(Session& session, const boost::json::object& opening);

/// All windows of a browser that we launched. A window that a page opens shares
/// its renderer: a dialog in there stops that page too, though nobody drives the
/// window. So every window begins stopped, gets its dialogs watched, and runs only
/// then; it is closed when the page that opened it has gone.
///
/// Fed with the events of the browser's session, after the browser was told
/// `auto_attach()`.
class Windows {
 public:
  Windows(std::shared_ptr<Connection> connection, std::shared_ptr<Session> browser);

  /// Parameters of Target.setAutoAttach.
  static boost::json::object auto_attach();
  void see(std::string_view method, const boost::json::object& params);

 private:
  struct Window {
    std::shared_ptr<Session> session;
    std::string target, opener;
  };

  void begin(const std::string& session_id, const boost::json::object& info);
  void end(const std::string& session_id);

  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<Session> browser_;
  std::map<std::string, Window> windows_;  // by the id of our session with it
};

}  // namespace vision::chromium
