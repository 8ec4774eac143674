#pragma once

#include <boost/json/object.hpp>
#include <memory>
#include <string_view>

namespace vision::chromium {

class Session;

/// Answers the JavaScript dialogs of a page: agrees to leaving the page, and dismisses
/// any other.
///
/// An answer does not name its dialog. When another program has answered meanwhile, it
/// would go to the next one, and confirm what nobody has seen. Therefore the browser is
/// asked something first: a dialog that is still open when the reply comes gets the answer.
class Dialogs {
 public:
  /// `session` must outlive this object.
  explicit Dialogs(Session& session) : session_(session) {}
  /// To be called with each of the page's events.
  void handle_event(std::string_view method, const boost::json::object& params);

 private:
  Session& session_;
  std::shared_ptr<const bool> open_;  // null without a dialog; otherwise what to answer
};

}  // namespace vision::chromium
