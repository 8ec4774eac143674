#pragma once

#include <memory>
#include <string>
#include <vector>

#include "chromium/input/document_guard.hpp"
#include "chromium/input/key_layout.hpp"
#include "chromium/protocol/session.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::chromium {

/// The US keyboard of a page.
class PageKeyboard : public Keyboard {
 public:
  /// `guard` must outlive the keyboard.
  PageKeyboard(std::shared_ptr<Session> session, DocumentGuard& guard);
  boost::asio::awaitable<void> type(std::string text, std::chrono::milliseconds delay) override;
  boost::asio::awaitable<void> press(std::string key) override;

 private:
  class HeldKeys;
  boost::asio::awaitable<void> press_chord(std::vector<Key> chord);

  const std::shared_ptr<Session> session_;
  DocumentGuard& guard_;
};

}  // namespace vision::chromium
