#pragma once

#include <memory>

#include "bindings/c/loop.hpp"
#include "bindings/c/vision.h"
#include "chromium/browser.hpp"
#include "vision/client/vision_client.hpp"

/// @file
/// What the host holds. A handle is one reference to what operations hold too.

namespace vision::c {

/// An object of the loop: used there, and destroyed there when the last of these goes.
template <class T>
class OnLoop {
 public:
  /// On the loop's thread.
  explicit OnLoop(std::shared_ptr<T> object)
      : loop_(Loop::current()->shared_from_this()), id_(loop_->keep(std::move(object))) {}
  ~OnLoop() { loop_->drop(id_); }
  OnLoop(const OnLoop&) = delete;
  OnLoop& operator=(const OnLoop&) = delete;

  /// On the loop's thread, while it runs.
  std::shared_ptr<T> get() const { return std::static_pointer_cast<T>(loop_->resident(id_)); }
  const Loop* loop() const noexcept { return loop_.get(); }

 private:
  const std::shared_ptr<Loop> loop_;
  const std::uint64_t id_;
};

using Browser = OnLoop<chromium::Browser>;

/// A page, of one of the two kinds.
class Page {
 public:
  /// The host's own.
  Page(std::shared_ptr<Loop> loop, std::shared_ptr<BrowserPage> page);
  /// One of a browser of ours, which it keeps alive. On the loop's thread.
  Page(std::shared_ptr<Browser> browser, std::shared_ptr<chromium::ChromiumPage> page);

  /// On the loop's thread.
  std::shared_ptr<BrowserPage> get() const;
  /// The same, null for a page of the host's own.
  std::shared_ptr<chromium::ChromiumPage> chromium_page() const;
  const Loop* loop() const noexcept;

 private:
  std::shared_ptr<Loop> loop_;
  std::shared_ptr<BrowserPage> of_host_;
  std::shared_ptr<Browser> browser_;
  std::unique_ptr<OnLoop<chromium::ChromiumPage>> of_ours_;  // destroyed before its browser
};

/// A client, used on the loop's thread alone.
class Client {
 public:
  Client(std::shared_ptr<Loop> loop, std::unique_ptr<VisionClient> client)
      : loop_(std::move(loop)), client_(std::move(client)) {}

  VisionClient& get() const noexcept { return *client_; }
  const std::shared_ptr<Loop>& loop() const noexcept { return loop_; }

 private:
  const std::shared_ptr<Loop> loop_;
  const std::unique_ptr<VisionClient> client_;
};

/// The loop's default client, which the first call makes. On a thread of the host's.
/// Throws what VisionClient's constructor does.
std::shared_ptr<Client> default_client(const std::shared_ptr<Loop>& loop);

}  // namespace vision::c

struct vision_runtime {
  std::shared_ptr<vision::c::Loop> loop;
};
struct vision_page {
  std::shared_ptr<vision::c::Page> page;
};
struct vision_client {
  std::shared_ptr<vision::c::Client> client;
};
struct vision_browser {
  std::shared_ptr<vision::c::Browser> browser;
};
