#pragma once

#include <gmock/gmock.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "chromium/browser.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/running.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"
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

template <class T>
struct Running : vision::test::Running<T> {
  explicit Running(asio::awaitable<T> operation)
      : vision::test::Running<T>(loop(), std::move(operation), [] { take_turn(); }) {}
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

/// The browser's own process. Its helpers have a type, and its crash handlers no
/// pipe; either may have the lower number, when numbers begin anew.
inline pid_t main_process(const std::string& profiles) {
  for (const pid_t id : processes_with(profiles)) {
    const auto line = vision::test::read_file("/proc/" + std::to_string(id) + "/cmdline");
    const bool has_pipe = line.find("--remote-debugging-pipe") != line.npos;
    if (line.starts_with("/") && has_pipe && line.find("--type=") == line.npos) return id;
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
