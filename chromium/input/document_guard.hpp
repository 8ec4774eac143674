#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chromium/errors.hpp"

namespace vision::chromium {

/// Keeps input that was decided from a picture off a document that came after it. Shared
/// by a page and its input devices.
class DocumentGuard {
 public:
  /// Identifies the document that the main frame shows.
  std::uint64_t document() const noexcept { return document_; }
  /// Tells that the main frame shows another document.
  void document_changed() noexcept { ++document_; }

  /// Tells that the host receives a picture of `document`.
  void picture_taken(std::uint64_t document) noexcept { pictured_ = document; }
  /// Tells that the host has dealt with the page in another way since the picture, and so
  /// may know of another document.
  void forget_picture() noexcept { pictured_.reset(); }

  /// Begins an input. Throws BrowserError if the page has changed to another document
  /// since the picture, else forgets it: what the input leads to is meant. `operation` and
  /// `done` are for the message.
  void begin_input(const std::string& operation, const std::string& done) {
    if (pictured_ && *pictured_ != document_) {
      throw BrowserError(operation +
                         ": the page has changed to another document since the last screenshot; nothing was " + done);
    }
    pictured_.reset();
  }

 private:
  std::uint64_t document_ = 0;
  std::optional<std::uint64_t> pictured_;
};

}  // namespace vision::chromium
