#pragma once

#include <boost/json/object.hpp>
#include <set>
#include <string>
#include <string_view>

#include "chromium/protocol/session.hpp"

namespace vision::chromium {

/// Waits until the page's main frame has loaded a document that it committed after the
/// waiter was created: the requested one, or one that a script replaced it with.
class LoadWaiter : public Waiter {
 public:
  using Waiter::Waiter;
  /// To be called with each of the page's events.
  void handle_event(std::string_view method, const boost::json::object& params);

 private:
  std::set<std::string, std::less<>> committed_;  // loader ids
};

}  // namespace vision::chromium
