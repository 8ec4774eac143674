#pragma once

#include <boost/json/object.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "chromium/launch_options.hpp"

namespace vision::chromium {

class Connection;
class Dialogs;
class Session;

/// The windows that pages open in a browser that we launched.
///
/// A pop-up shares the renderer of the page that opened it, so a dialog in the pop-up
/// stops that page too, although nobody drives the pop-up. Therefore each new window
/// starts paused, and runs only when its dialogs are being answered. It looks like the
/// page that opened it, and is closed when that page has gone. The windows of new_page()
/// come through here as well, because the browser reports all new windows alike.
class Popups {
 public:
  /// `browser` is the browser's own session on `connection`.
  Popups(std::shared_ptr<Connection> connection, std::shared_ptr<Session> browser);
  ~Popups();

  /// Parameters of Target.setAutoAttach, after which the browser reports new windows.
  static boost::json::object auto_attach();
  /// A page of new_page() now answers its dialogs itself. Its windows are to look like it.
  void hand_over(const std::string& target_id, const PageOptions& look);
  /// To be called with each event of the browser's session.
  void handle_event(std::string_view method, const boost::json::object& params);

 private:
  struct Window {
    std::shared_ptr<Session> session;
    std::unique_ptr<Dialogs> dialogs;  // null: the page answers them itself
    std::string target_id, opener_id;
    std::optional<PageOptions> look;  // nullopt: not known, and left alone
  };

  void add(const std::string& session_id, const boost::json::object& target_info);
  std::optional<PageOptions> look_of(const std::string& target_id) const;
  void remove(const std::string& session_id);

  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<Session> browser_session_;
  std::map<std::string, Window> windows_;  // by the id of our session with the window
};

}  // namespace vision::chromium
