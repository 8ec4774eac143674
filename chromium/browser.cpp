#include "chromium/browser.hpp"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>
#include <cctype>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "chromium/events/popups.hpp"
#include "chromium/events/probe.hpp"
#include "chromium/process/process.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/devtools_url.hpp"
#include "chromium/protocol/json_object.hpp"
#include "chromium/protocol/pipe_transport.hpp"
#include "chromium/protocol/session.hpp"
#include "chromium/protocol/websocket_transport.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

void check(const PageOptions& options) {
  constexpr int max_side = 10'000'000;  // the browser's own limit
  for (const int side : {options.width(), options.height()}) {
    if (side < 1 || side > max_side) {
      throw std::invalid_argument("viewport " + std::to_string(options.width()) + " x " +
                                  std::to_string(options.height()) + ": a side is from 1 to " +
                                  std::to_string(max_side) + " pixels");
    }
  }
  const double ratio = options.device_pixel_ratio();
  if (!std::isfinite(ratio) || ratio <= 0) {
    throw std::invalid_argument("device pixel ratio " + std::to_string(ratio) + ": must be finite and above 0");
  }
}

// The window is as large as the viewport, which pages compare. Chromium takes no picture
// in a window of a few pixels or of tens of thousands, whatever its viewport.
int window_side(int viewport_side) {
  return std::clamp(viewport_side, 100, 4096);
}

asio::awaitable<std::unique_ptr<Transport>> open_transport(DevToolsUrl url) {
  DevToolsUrl browser = co_await discover_browser(std::move(url));
  co_return co_await WebSocketTransport::connect(std::move(browser));
}

// The text of Asio's own error names a line of its source.
[[noreturn]] void rethrow_explained(const DevToolsUrl& url, const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const boost::system::system_error& error) {
    std::string reason = error.code().message();
    reason.replace(0, 1, 1, static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0]))));
    const bool refused = error.code() == asio::error::connection_refused;
    throw BrowserError("no browser answers at " + url.authority() + ": " + reason +
                       (refused ? "; was it started with --remote-debugging-port?" : ""));
  }
}

}  // namespace

// A page until a ChromiumPage owns it; closed if none ever does.
class Browser::OpenedTarget {
 public:
  OpenedTarget(std::shared_ptr<Session> browser, const json::object& created)
      : browser_(std::move(browser)), id_(text_of(created, "targetId")) {}
  ~OpenedTarget() {
    if (!id_.empty()) browser_->send_and_forget("Target.closeTarget", make_object("targetId", id_));
  }
  OpenedTarget(const OpenedTarget&) = delete;
  OpenedTarget& operator=(const OpenedTarget&) = delete;

  const std::string& id() const noexcept { return id_; }
  std::string release() { return std::exchange(id_, {}); }

 private:
  const std::shared_ptr<Session> browser_;
  std::string id_;
};

Browser::Browser(std::unique_ptr<BrowserProcess> process, std::shared_ptr<Connection> connection)
    : process_(std::move(process)), connection_(std::move(connection)), session_(connection_->session("")) {}

// The connection first, so that pages which are still held end with an error at once;
// process_, the first member, is destroyed last and blocks until the browser has ended.
Browser::~Browser() {
  session_->set_event_handler(nullptr);  // it refers to this object
  connection_->close();
}

asio::awaitable<void> Browser::set_up() {
  popups_ = std::make_unique<Popups>(connection_, session_);
  session_->set_event_handler(
      [this](std::string_view method, const json::object& params) { popups_->handle_event(method, params); });
  co_await session_->command("Target.setAutoAttach", Popups::auto_attach());
  co_await session_->command("Browser.setDownloadBehavior", make_object("behavior", "deny"));
}

asio::awaitable<std::vector<PageInfo>> Browser::pages() {
  const json::object reply = co_await session_->command("Target.getTargets");
  std::vector<PageInfo> out;
  const auto* targets = reply.if_contains("targetInfos");
  if (!targets || !targets->is_array()) throw BrowserError("the browser did not list its pages");
  for (const auto& target : targets->get_array()) {
    const auto* info = target.if_object();
    if (!info || text_of(*info, "type") != "page") continue;
    out.emplace_back(std::string(text_of(*info, "targetId")), std::string(text_of(*info, "url")),
                     std::string(text_of(*info, "title")));
  }
  co_return out;
}

asio::awaitable<std::shared_ptr<Session>> Browser::open_session(std::string target_id) {
  auto params = make_object("targetId", target_id, "flatten", true);
  auto undo = [browser = session_](const json::object& late) {
    browser->send_and_forget("Target.detachFromTarget", make_object("sessionId", text_of(late, "sessionId")));
  };
  const json::object reply = co_await session_->command_or_undo("Target.attachToTarget", std::move(params), undo);
  co_return connection_->session(std::string(text_of(reply, "sessionId")));
}

asio::awaitable<std::shared_ptr<Browser::OpenedTarget>> Browser::open_target(PageOptions options) {
  auto params = make_object("url", "about:blank", "newWindow", true, "width", window_side(options.width()), "height",
                            window_side(options.height()));
  auto undo = [browser = session_](const json::object& late) { OpenedTarget(browser, late); };
  const json::object reply = co_await session_->command_or_undo("Target.createTarget", std::move(params), undo);
  co_return std::make_shared<OpenedTarget>(session_, reply);
}

asio::awaitable<std::shared_ptr<ChromiumPage>> Browser::attach(std::string target_id) {
  std::shared_ptr<Session> session;
  try {
    session = co_await open_session(target_id);
  } catch (const ProtocolError& error) {
    throw BrowserError("no page with target id \"" + text::one_line(target_id) + "\": " + error.browser_message());
  }
  const std::shared_ptr<ChromiumPage> page(
      new ChromiumPage(session_, std::move(session), std::move(target_id), ChromiumPage::Owner::someone_else));
  co_await page->enable_events();
  co_await page->measure();
  co_return page;
}

asio::awaitable<std::shared_ptr<ChromiumPage>> Browser::new_page(PageOptions options) {
  check(options);
  const auto target = co_await open_target(options);
  auto session = co_await open_session(target->id());
  const std::shared_ptr<ChromiumPage> page(
      new ChromiumPage(session_, std::move(session), target->release(), ChromiumPage::Owner::us));
  std::erase_if(our_pages_, [](const auto& entry) { return entry.expired(); });
  our_pages_.push_back(page);
  co_await page->set_up(options);
  if (popups_) popups_->hand_over(page->target_id(), options);
  co_return page;
}

asio::awaitable<std::shared_ptr<ChromiumPage>> Browser::new_page() {
  PageOptions options;
  return new_page(options);
}

// The browser replies in the order of the commands. When the first reply is here, so is
// that of a new_page() which was cancelled, and its page's end is on its way; when the
// second one is here, so are the pages' ends that nobody awaits.
asio::awaitable<void> Browser::close_our_pages() {
  co_await session_->command("Browser.getVersion");
  for (const auto& entry : std::exchange(our_pages_, {})) {
    if (const auto page = entry.lock()) co_await page->close();
  }
  co_await session_->command("Browser.getVersion");
}

// A launched browser takes its pages with it, so only those in another program's browser
// are closed one by one. A page that fails to close keeps nothing else from closing. The
// connection goes before the process: its end is what tells the browser to exit.
asio::awaitable<void> Browser::close() {
  if (!process_ && !connection_->ended()) {
    (void)co_await runtime::try_await(close_our_pages());
  }
  connection_->close();
  if (process_) co_await process_->stop();
}

asio::awaitable<std::shared_ptr<Browser>> launch(LaunchOptions options) {
  const auto executor = co_await asio::this_coro::executor;
  auto process = std::make_unique<BrowserProcess>(executor, options);
  auto transport = std::make_unique<PipeTransport>(process->take_pipe());
  auto connection = Connection::open(executor, std::move(transport), options.command_timeout());
  const std::shared_ptr<Browser> browser(new Browser(std::move(process), std::move(connection)));
  auto asked = browser->session_->command("Browser.getVersion", json::object(), options.launch_timeout());
  const auto outcome = co_await runtime::try_await(std::move(asked));
  if (outcome.error()) {
    const std::string& tail = browser->process_->stderr_tail();
    throw BrowserError("the browser " + options.executable() + " did not start: " +
                       text::describe(outcome.error()).message + (tail.empty() ? "" : "\n" + tail));
  }
  co_await browser->set_up();
  co_return browser;
}

asio::awaitable<std::shared_ptr<Browser>> launch() {
  LaunchOptions options;
  return launch(std::move(options));
}

asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options) {
  const DevToolsUrl parsed = parse_devtools_url(url);
  if (!options.allow_remote() && !is_loopback(parsed.host)) {
    throw std::invalid_argument("browser URL \"" + text::one_line(url) +
                                "\" is on another machine; ConnectOptions::allow_remote permits that");
  }
  const auto executor = co_await asio::this_coro::executor;
  auto outcome = co_await runtime::with_deadline(open_transport(parsed), options.command_timeout());
  if (outcome.timed_out()) throw CommandTimeout("connect to " + text::one_line(url), options.command_timeout().count());
  if (outcome.error()) rethrow_explained(parsed, outcome.error());
  auto connection = Connection::open(executor, std::move(outcome.value()), options.command_timeout());
  co_return std::shared_ptr<Browser>(new Browser(nullptr, std::move(connection)));
}

asio::awaitable<std::shared_ptr<Browser>> connect(std::string url) {
  ConnectOptions options;
  return connect(std::move(url), options);
}

}  // namespace vision::chromium
