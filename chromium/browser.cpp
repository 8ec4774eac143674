#include "chromium/browser.hpp"

#include <boost/asio/this_coro.hpp>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "chromium/events/popups.hpp"
#include "chromium/process/process.hpp"
#include "chromium/protocol/connection.hpp"
#include "chromium/protocol/endpoint.hpp"
#include "chromium/protocol/fields.hpp"
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
      throw std::invalid_argument("a viewport of " + std::to_string(options.width()) + " by " +
                                  std::to_string(options.height()) + " pixels");
    }
  }
  const double ratio = options.device_pixel_ratio();
  if (!std::isfinite(ratio) || ratio <= 0)
    throw std::invalid_argument("a device pixel ratio of " + std::to_string(ratio));
}

asio::awaitable<std::unique_ptr<Transport>> reach(Endpoint endpoint) {
  Endpoint browser = co_await find_browser(std::move(endpoint));
  co_return co_await WebSocketTransport::connect(std::move(browser));
}

}  // namespace

Browser::Browser(std::unique_ptr<BrowserProcess> process, std::shared_ptr<Connection> connection)
    : process_(std::move(process)), connection_(std::move(connection)), session_(connection_->session("")) {}

Browser::~Browser() {
  session_->on_event(nullptr);
  connection_->close();
}

asio::awaitable<void> Browser::set_up() {
  windows_ = std::make_unique<Windows>(connection_, session_);
  session_->on_event([this](std::string_view method, const json::object& params) { windows_->see(method, params); });
  co_await session_->call("Target.setAutoAttach", Windows::auto_attach());
  co_await session_->call("Browser.setDownloadBehavior", fields("behavior", "deny"));
}

asio::awaitable<std::vector<PageInfo>> Browser::pages() {
  const json::object answer = co_await session_->call("Target.getTargets");
  std::vector<PageInfo> out;
  const auto* targets = answer.if_contains("targetInfos");
  if (!targets || !targets->is_array()) throw BrowserError("the browser did not tell its pages");
  for (const auto& target : targets->get_array()) {
    const auto* info = target.if_object();
    if (!info || text_of(*info, "type") != "page") continue;
    out.emplace_back(std::string(text_of(*info, "targetId")), std::string(text_of(*info, "url")),
                     std::string(text_of(*info, "title")));
  }
  co_return out;
}

asio::awaitable<std::shared_ptr<Session>> Browser::open_session(std::string target_id) {
  const json::object answer =
      co_await session_->call("Target.attachToTarget", fields("targetId", target_id, "flatten", true));
  co_return connection_->session(std::string(text_of(answer, "sessionId")));
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
  co_await page->observe();
  co_await page->measure();
  co_return page;
}

asio::awaitable<std::shared_ptr<ChromiumPage>> Browser::new_page(PageOptions options) {
  check(options);
  const json::object answer =
      co_await session_->call("Target.createTarget", fields("url", "about:blank", "newWindow", true));
  std::string target_id(text_of(answer, "targetId"));
  auto session = co_await open_session(target_id);
  const std::shared_ptr<ChromiumPage> page(
      new ChromiumPage(session_, std::move(session), std::move(target_id), ChromiumPage::Owner::us));
  std::erase_if(our_pages_, [](const auto& entry) { return entry.expired(); });
  our_pages_.push_back(page);
  co_await page->set_up(options);
  co_return page;
}

asio::awaitable<std::shared_ptr<ChromiumPage>> Browser::new_page() {
  PageOptions options;
  return new_page(options);
}

asio::awaitable<void> Browser::close_our_pages() {
  for (const auto& entry : std::exchange(our_pages_, {})) {
    if (const auto page = entry.lock()) co_await page->close();
  }
}

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
  auto asked = browser->session_->call("Browser.getVersion", json::object(), options.launch_timeout());
  const auto outcome = co_await runtime::try_await(std::move(asked));
  if (outcome.error()) {
    const std::string words = browser->process_->last_words();
    throw BrowserError("the browser " + options.executable() + " did not start: " +
                       text::describe(outcome.error()).message + (words.empty() ? "" : "\n" + words));
  }
  co_await browser->set_up();
  co_return browser;
}

asio::awaitable<std::shared_ptr<Browser>> launch() {
  LaunchOptions options;
  return launch(std::move(options));
}

asio::awaitable<std::shared_ptr<Browser>> connect(std::string url, ConnectOptions options) {
  Endpoint endpoint = parse_endpoint(url);
  if (!options.allow_remote() && !is_loopback(endpoint.host)) {
    throw std::invalid_argument("browser URL \"" + text::one_line(url) +
                                "\" leads to another machine; ConnectOptions::allow_remote permits that");
  }
  const auto executor = co_await asio::this_coro::executor;
  auto outcome = co_await runtime::with_deadline(reach(std::move(endpoint)), options.command_timeout());
  if (outcome.timed_out()) throw CommandTimeout("connect to " + text::one_line(url), options.command_timeout().count());
  if (outcome.error()) std::rethrow_exception(outcome.error());
  auto connection = Connection::open(executor, std::move(outcome.value()), options.command_timeout());
  co_return std::shared_ptr<Browser>(new Browser(nullptr, std::move(connection)));
}

asio::awaitable<std::shared_ptr<Browser>> connect(std::string url) {
  ConnectOptions options;
  return connect(std::move(url), options);
}

}  // namespace vision::chromium
