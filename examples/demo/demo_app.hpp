#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/json/object.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "examples/loopback/loopback_server.hpp"

namespace demo {

/// An action of a user in the web application.
struct AppEvent {
  std::string board;   ///< the board's id
  std::string what;    ///< "opened", "invited" or "linked"
  std::string detail;  ///< the email address or the link
};

/// "Pinwall", the web application of the mission: a list of boards, a board, a dialog
/// to invite people. People can use it as well. Serves on 127.0.0.1 from construction
/// to destruction, on the executor it is given.
class DemoApp {
 public:
  /// Port 0 is any free port. Throws boost::system::system_error when it cannot
  /// listen, std::runtime_error when its files are missing.
  explicit DemoApp(const boost::asio::any_io_executor& executor, std::uint16_t port = 0);

  std::string base_url() const { return server_.base_url(); }
  /// The link that the application issued last; empty before the first one.
  const std::string& answer() const;
  /// Everything that happened, in order.
  const std::vector<AppEvent>& events() const;
  /// Whether the mission's outcome is right: `email` joined the board `board`, and
  /// nobody else was invited anywhere.
  bool only_invited(std::string_view board, std::string_view email) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  loopback::LoopbackServer server_;
};

/// A new share link, different in every run, like "pinwall.test/maple-7342".
std::string make_share_link();

}  // namespace demo
