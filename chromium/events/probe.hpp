#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "chromium/events/fonts.hpp"

namespace vision::chromium {

class Session;

/// Asks a page for its size and device pixel ratio, and remembers the answers.
///
/// While a navigation waits for its server, Chromium holds every script back until the
/// new document is there, but takes a screenshot of the old one at once. An answer
/// therefore says that a screenshot will show the document that input will reach.
class PageProbe {
 public:
  /// How long to wait where an older answer is as good.
  static constexpr std::chrono::seconds short_limit{2};
  /// How long a screenshot waits for a navigation. An observer's time limit leaves 8 s
  /// beside those of the ask.
  static constexpr std::chrono::seconds navigation_limit{7};

  explicit PageProbe(std::shared_ptr<Session> session);

  /// Completes when the page has answered, cannot answer, or short_limit has passed.
  /// Throws only on cancellation.
  boost::asio::awaitable<void> measure();

  /// Completes when a screenshot would show the document that input reaches, with the
  /// text of its web fonts (see FontWait), when the page cannot answer, or when
  /// navigation_limit has passed. Throws only on cancellation.
  boost::asio::awaitable<void> wait_for_picture();

  /// Whether the page answered the last time.
  bool answered() const noexcept { return answered_; }
  /// The size in CSS pixels at the last answer, with the members "width" and "height";
  /// std::nullopt before the first.
  const std::optional<boost::json::object>& size() const noexcept { return size_; }
  /// The device pixel ratio at the last answer; null before the first.
  const boost::json::value& ratio() const noexcept { return ratio_; }

 private:
  boost::asio::awaitable<boost::json::value> ask(std::string script, std::chrono::milliseconds limit);
  void remember(const boost::json::value& answer);

  const std::shared_ptr<Session> session_;
  std::optional<boost::json::object> size_;
  boost::json::value ratio_;
  FontWait fonts_;
  bool answered_ = true;
};

}  // namespace vision::chromium
