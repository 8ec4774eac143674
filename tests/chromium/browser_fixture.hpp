#pragma once

#include <gmock/gmock.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "chromium/browser.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/running.hpp"
#include "tests/support/scripted.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/wirein/act_loop.hpp"

namespace vision::chromium::test {

namespace asio = boost::asio;
namespace json = boost::json;
using std::chrono::milliseconds;

inline const std::string closed = "PageClosedError: Target page, context or browser has been closed";
inline const std::string for_ever = "started = true, new Promise(() => {})";

/// Where operations run. A test may replace the loop, and how it takes a turn.
inline asio::io_context* current_loop = nullptr;
inline asio::io_context& loop() {
  static asio::io_context context;
  static const auto work = asio::make_work_guard(context);
  return current_loop ? *current_loop : context;
}
inline std::function<void()> take_turn = [] { loop().run_one(); };

template <class T>
struct Running : vision::test::Watched<T> {
  explicit Running(asio::awaitable<T> operation)
      : vision::test::Watched<T>(loop(), std::move(operation), [] { take_turn(); }) {}
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

/// An evaluation that has begun and never completes.
class Pending : public Running<json::value> {
 public:
  explicit Pending(ChromiumPage& page) : Running(page.evaluate(for_ever)) {
    while (value_of(page, "window.started === true") != "true") continue;
  }
};

/// Ids of the live processes whose command line contains `text`.
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

/// The id of the browser's main process. Its helpers have a type, and its crash handlers
/// no pipe; process ids do not tell, because they start over.
inline pid_t main_process(const std::string& profiles) {
  for (const pid_t id : processes_with(profiles)) {
    const auto line = vision::test::read_file("/proc/" + std::to_string(id) + "/cmdline");
    const bool has_pipe = line.find("--remote-debugging-pipe") != line.npos;
    if (line.starts_with("/") && has_pipe && line.find("--type=") == line.npos) return id;
  }
  throw std::runtime_error("no browser runs in " + profiles);
}

/// Runs a mission and returns its verdict as "action: reason".
inline asio::awaitable<std::string> verdict_of(BrowserPage& page, ActLoopOptions mission) {
  const ActionResult verdict = co_await act_loop(page, std::move(mission));
  co_return verdict.action + ": " + verdict.reason;
}

/// A real browser with time limits in virtual time: the pauses between the steps of a
/// mission pass at once, a limit only once it is known that nothing else can come.
class VirtualTimeLoop : vision::test::VirtualLoop {
 public:
  VirtualTimeLoop() : begins_(io, {asio::ip::address_v4::loopback(), 0}) {
    begins_.async_accept([this](boost::system::error_code, asio::ip::tcp::socket) { hangs = true; });
    current_loop = &io;
    test::take_turn = [this] {
      io.restart();
      const bool busy = io.poll_one() > 0;
      if (hangs && time->advance()) return;
      const bool pause = time->until_next() < passes;
      if (!busy && !(pause && time->advance())) io.run_one();
    };
  }
  ~VirtualTimeLoop() {
    current_loop = nullptr;
    test::take_turn = [] { loop().run_one(); };
  }

  /// A page's statement after which `hangs` is set: what follows it goes on for ever.
  std::string tell() const {
    return "fetch('http://127.0.0.1:" + std::to_string(begins_.local_endpoint().port()) + "', {mode: 'no-cors'}); ";
  }

  bool hangs = false;
  milliseconds passes{2500};  ///< waits that are shorter than this pass at once

 private:
  asio::ip::tcp::acceptor begins_;
};

/// The directory for the profiles of a test's browsers.
class ProfilesHere {
 public:
  ProfilesHere() : variable_("TMPDIR", directory_.path().string()) {}
  std::string path() const { return directory_.path().string(); }
  bool empty() const { return std::filesystem::is_empty(directory_.path()) && processes_with(path()).empty(); }

 private:
  vision::test::ScratchDirectory directory_;
  vision::test::ScopedEnv variable_;
};

/// The port of the browser that was launched with --remote-debugging-port=0, the only one in `profiles`.
inline std::string debugging_port(const ProfilesHere& profiles, std::string* path = nullptr) {
  const auto profile = std::filesystem::directory_iterator(profiles.path())->path();
  std::string file;
  while (file.find('\n') == file.npos) file = vision::test::read_file(profile / "DevToolsActivePort");
  if (path) *path = file.substr(file.find('\n') + 1);
  return file.substr(0, file.find('\n'));
}

/// One browser for all tests of a suite, and a new page for each test.
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
