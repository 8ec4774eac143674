#pragma once

#include <boost/json/object.hpp>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "chromium/protocol/session.hpp"

namespace vision::chromium {

/// Waits until a document has loaded that the page's main frame committed after
/// this began: the one asked for, or one that a script put in its place. Fed
/// with the page's events.
class LoadWaiter : public Waiter {
 public:
  using Waiter::Waiter;
  void see(std::string_view method, const boost::json::object& params);

 private:
  std::set<std::string, std::less<>> committed_;
};

}  // namespace vision::chromium
