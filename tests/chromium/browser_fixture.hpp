#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "chromium/browser.hpp"
#include "tests/support/environment.hpp"
#include "vision/records/base64.hpp"
#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"
#include "vision/wirein/act_loop.hpp"

namespace vision::chromium::test {

namespace asio = boost::asio;
namespace json = boost::json;
using std::chrono::milliseconds;

inline const std::string closed = "PageClosedError: Target page, context or browser has been closed";
inline const std::string for_ever = "started = true, new Promise(() => {})";

/// Where operations run. A test may put a loop of its own in its place, with its own
/// way to take a turn.
inline asio::io_context* current_loop = nullptr;
inline asio::io_context& loop() {
  static asio::io_context context;
  static const auto work = asio::make_work_guard(context);
  return current_loop ? *current_loop : context;
}
inline std::function<void()> take_turn = [] { loop().run_one(); };

/// An operation that runs on the loop while the test goes on.
template <class T>
class Running {
 public:
  explicit Running(asio::awaitable<T> operation) {
    const auto finish = [this](std::exception_ptr error, auto... value) {
      error_ = error;
      ((value_ = std::move(value)), ...);
      done_ = true;
    };
    asio::co_spawn(loop(), std::move(operation), asio::bind_cancellation_slot(signal_.slot(), finish));
  }
  void cancel() { signal_.emit(asio::cancellation_type::terminal); }
  /// Its value; throws its error.
  T get() {
    wait();
    if (error_) std::rethrow_exception(error_);
    if constexpr (!std::is_void_v<T>) return std::move(value_);
  }
  /// "Kind: message" of the error it ended with.
  std::string error() {
    wait();
    return error_ ? text::exception_text(error_) : "no error";
  }

 private:
  void wait() {
    while (!done_) take_turn();
  }

  asio::cancellation_signal signal_;
  std::exception_ptr error_;
  std::conditional_t<std::is_void_v<T>, int, T> value_{};
  bool done_ = false;
};

template <class T>
auto run(asio::awaitable<T> operation) {
  return Running<T>(std::move(operation)).get();
}

template <class T>
std::string error_of(asio::awaitable<T> operation) {
  return Running<T>(std::move(operation)).error();
}

inline std::string page_url(const std::string& html) {
  return "data:text/html;charset=utf-8;base64," + _b64(html);
}

/// The value of an expression as JSON text.
inline std::string value_of(ChromiumPage& page, const std::string& expression) {
  return text::to_json(run(page.evaluate(expression)));
}

/// Something that the browser never answers, and has begun.
class Pending : public Running<json::value> {
 public:
  explicit Pending(ChromiumPage& page) : Running(page.evaluate(for_ever)) {
    while (value_of(page, "window.started === true") != "true") continue;
  }
};

/// Ids of the live processes whose command line has `text` in it.
inline std::vector<pid_t> processes_with(const std::string& text) {
  std::vector<pid_t> out;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string command = vision::test::read_file(entry.path() / "cmdline");  // empty for a zombie
    if (command.find(text) != std::string::npos) out.push_back(static_cast<pid_t>(std::stol(name)));
  }
  return out;
}

/// The browser's own process, which the others are helpers of.
inline pid_t main_process(const std::string& profiles) {
  for (const pid_t id : processes_with(profiles)) {
    const auto line = vision::test::read_file("/proc/" + std::to_string(id) + "/cmdline");
    if (line.starts_with("/") && line.find("--type=") == line.npos) return id;
  }
  throw std::runtime_error("no browser runs in " + profiles);
}

/// Runs a mission and gives its verdict as "action: reason".
inline asio::awaitable<std::string> verdict_of(BrowserPage& page, ActLoopOptions mission) {
  const ActionResult verdict = co_await act_loop(page, std::move(mission));
  co_return verdict.action + ": " + verdict.reason;
}

/// A directory of its own for the profiles of the browsers of a test.
class ProfilesHere {
 public:
  ProfilesHere() : variable_("TMPDIR", directory_.path().string()) {}
  std::string path() const { return directory_.path().string(); }
  bool empty() const { return std::filesystem::is_empty(directory_.path()) && processes_with(path()).empty(); }

 private:
  vision::test::ScratchDirectory directory_;
  vision::test::ScopedEnv variable_;
};

/// One browser for the tests of a suite, a new page for each.
class PageTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { browser_ = run(launch()); }
  static void TearDownTestSuite() {
    run(browser_->close());
    browser_.reset();
  }
  void SetUp() override { page_ = run(browser_->new_page()); }
  void TearDown() override {
    if (page_) run(page_->close());
  }
  void open(const std::string& html) { run(page_->navigate(page_url(html))); }

  inline static std::shared_ptr<Browser> browser_;
  std::shared_ptr<ChromiumPage> page_;
};

}  // namespace vision::chromium::test
