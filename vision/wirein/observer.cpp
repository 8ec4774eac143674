#include "vision/wirein/observer.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/this_coro.hpp>

#include "vision/runtime/internal/await.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/observation.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

// Replaces a page that was destroyed before its observation began.
class GonePage : public BrowserPage {
 public:
  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override { fail(); }
  asio::awaitable<boost::json::value> evaluate(std::string) override { fail(); }
  std::optional<boost::json::object> viewport_size() override { return {}; }
  Mouse& mouse() override { fail(); }
  Keyboard& keyboard() override { fail(); }

 private:
  [[noreturn]] static void fail() { throw std::runtime_error("the page was destroyed before its screenshot"); }
};

asio::awaitable<boost::json::object> observe_body(std::shared_ptr<BrowserPage> page, const ObserverOptions options) {
  VisionClient& client = detail::client_of(options);
  const detail::Site site{options.hotspot_id(), options.run_id()};
  auto vision = co_await detail::observe(client, std::move(page), options.flow_context(), site, options.high_stakes());
  const auto executor = co_await asio::this_coro::executor;
  const double now = runtime::to_seconds(runtime::time_source(executor).wall_now());
  auto record = detail::record_header(now, site.run_id, site.hotspot_id, options.flow_context());
  record["source"] = "dom_success";
  record["vision"] = std::move(vision);
  record["dom_ground_truth"] = options.dom_ground_truth();
  _append_shadow_record(record);
  co_return record;
}

asio::awaitable<boost::json::object> observe_if_there(std::weak_ptr<BrowserPage> page, ObserverOptions options) {
  auto held = page.lock();
  if (!held) held = std::make_shared<GonePage>();
  return runtime::with_own_cancellation(observe_body(std::move(held), std::move(options)));
}

// What an error says or, of one that says nothing, its type.
std::string message_of(const std::exception_ptr& error) {
  text::ErrorDescription described = text::describe(error);
  return described.message.empty() ? std::move(described.kind) : std::move(described.message);
}

}  // namespace

asio::awaitable<boost::json::object> observe_only(BrowserPage& page, ObserverOptions options) {
  return runtime::with_own_cancellation(observe_body(detail::borrowed(page), std::move(options)));
}

void observe_in_background(const asio::any_io_executor& executor, std::weak_ptr<BrowserPage> page,
                           ObserverOptions options,
                           std::function<void(std::exception_ptr, boost::json::object)> on_end) noexcept {
  const auto report = [on_end = std::move(on_end)](const std::exception_ptr& error,
                                                   boost::json::object record) noexcept {
    if (!on_end) {
      if (error) log::line(spdlog::level::warn, "vision: observation failed: %s", message_of(error));
      return;
    }
    try {
      on_end(error, std::move(record));
    } catch (...) {
      log::line(spdlog::level::warn, "vision: on_end callback raised: %s", message_of(std::current_exception()));
    }
  };
  try {
    asio::co_spawn(executor, observe_if_there(std::move(page), std::move(options)), report);
  } catch (...) {
    report(std::current_exception(), {});
  }
}

}  // namespace vision
