#include "vision/wirein/shadow_mode.hpp"

#include <boost/asio/this_coro.hpp>

#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"
#include "vision/wirein/internal/observation.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace vision {
namespace asio = boost::asio;

bool is_cua_origin(const std::exception_ptr& error) noexcept {
  if (!error) return false;
  try {
    std::rethrow_exception(error);
  } catch (const CuaOriginMark& mark) {
    return mark._kx_cua_origin;
  } catch (...) {
    return false;
  }
}

bool is_cua_origin(const std::exception& error) noexcept {
  const auto* mark = dynamic_cast<const CuaOriginMark*>(&error);
  return mark && mark->_kx_cua_origin;
}

namespace detail {

namespace {

// Where the error's type has the mark.
void mark_cua_origin(const std::exception_ptr& error) noexcept {
  try {
    std::rethrow_exception(error);
  } catch (CuaOriginMark& mark) {
    mark._kx_cua_origin = true;
  } catch (...) {
    return;  // a type without the mark
  }
}

// The CUA's run time.
asio::awaitable<runtime::Duration> _cua_run(runtime::TimeSource& time, asio::awaitable<void> cua) {
  const auto t0 = time.wall_now();
  co_await std::move(cua);
  co_return time.wall_now() - t0;
}

std::string cua_text_head(const std::function<boost::json::value()>& cua_text) {
  constexpr std::size_t head_code_points = 200;
  try {
    const boost::json::value entry = cua_text();
    const bool is_false_or_zero =
        (entry.is_bool() && !entry.get_bool()) || (entry.is_number() && entry.to_number<double>() == 0);
    if (text::is_blank(entry) || is_false_or_zero) return {};
    const std::string whole = text::plain_text(entry);
    return std::string(text::first_code_points(whole, head_code_points));
  } catch (...) {
    return {};  // the record goes without it
  }
}

// Nothing about a record may replace the CUA's outcome.
void write_record(double wall_seconds, const ObserverOptions& options, runtime::Outcome<boost::json::object>& vision,
                  runtime::Outcome<runtime::Duration>& agent,
                  const std::function<boost::json::value()>& cua_text) noexcept {
  try {
    auto record = record_header(wall_seconds, options.run_id(), options.hotspot_id(), options.flow_context());
    if (vision.has_value()) {
      record["vision"] = std::move(vision.value());
    } else {
      record["vision"].emplace_object()["error"] = "gather: " + text::exception_text(vision.error());
    }
    auto& cua = record["cua"].emplace_object();
    if (agent.has_value()) {
      cua["latency_ms"] = runtime::whole_ms(agent.value());
      cua["text_head"] = cua_text_head(cua_text);
    } else {
      cua["error"] = text::exception_text(agent.error());
    }
    _append_shadow_record(record);
  } catch (...) {
    return;
  }
}

asio::awaitable<std::exception_ptr> shadow_body(BrowserPage& page, asio::awaitable<void> cua,
                                                std::function<boost::json::value()> cua_text,
                                                const ObserverOptions options) {
  VisionClient& client = client_of(options);
  const auto executor = co_await asio::this_coro::executor;
  runtime::TimeSource& time = runtime::time_source(executor);
  const Site site{options.hotspot_id(), options.run_id()};
  auto vision_leg = observe(client, borrowed(page), options.flow_context(), site, options.high_stakes());
  auto cua_leg = _cua_run(time, std::move(cua));
  auto [vision, agent] = co_await runtime::gather(std::move(vision_leg), std::move(cua_leg));

  write_record(runtime::to_seconds(time.wall_now()), options, vision, agent, cua_text);
  if (!agent.has_value()) mark_cua_origin(agent.error());
  co_return agent.error();
}

}  // namespace

asio::awaitable<std::exception_ptr> shadow_run(BrowserPage& page, asio::awaitable<void> cua,
                                               std::function<boost::json::value()> cua_text, ObserverOptions options) {
  return runtime::with_own_cancellation(shadow_body(page, std::move(cua), std::move(cua_text), std::move(options)));
}

}  // namespace detail
}  // namespace vision
