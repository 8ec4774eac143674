#pragma once

#include <boost/json/object.hpp>
#include <list>
#include <set>
#include <string>
#include <string_view>

#include "chromium/protocol/session.hpp"

namespace vision::chromium {

/// Whether an event says that a page's main frame shows another document from now on.
bool commits_document(std::string_view method, const boost::json::object& params);

/// Waits until the page's main frame has loaded a document that it committed after the
/// waiter was created: the requested one, or one that a script replaced it with.
class LoadWaiter : public Waiter {
 public:
  /// The waiters of one page, the earliest first.
  using List = std::list<LoadWaiter*>;

  /// Is in `all`, which must outlive it, for its lifetime. `url` is for errors.
  LoadWaiter(std::shared_ptr<Session> session, List& all, std::string url);
  ~LoadWaiter() override { all_.remove(this); }
  void handle_event(std::string_view method, const boost::json::object& params) override;
  /// Fails the earlier waiters with NavigationError: this navigation has replaced their document.
  void supersede_earlier();

 private:
  List& all_;
  const std::string url_;
  std::set<std::string, std::less<>> committed_;  // loader ids
};

}  // namespace vision::chromium
