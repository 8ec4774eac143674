#include "vision/wirein/shadow_mode.hpp"

#include <boost/asio/this_coro.hpp>

#include "vision/runtime/deadline.hpp"
#include "vision/runtime/entry.hpp"
#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"
#include "vision/text/numbers.hpp"
#include "vision/text/utf8.hpp"
#include "vision/wirein/observation.hpp"
#include "vision/wirein/shadow_log.hpp"

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

void mark_cua_origin(const std::exception_ptr& error) noexcept {
  try {
    std::rethrow_exception(error);
  } catch (CuaOriginMark& mark) {
    mark._kx_cua_origin = true;
  } catch (...) {
    return;  // a type without the mark
  }
}

namespace {

// The CUA's run time in milliseconds.
asio::awaitable<double> _cua_run(asio::awaitable<void> cua) {
  const double t0 = co_await runtime::wall_seconds();
  co_await std::move(cua);
  co_return (co_await runtime::wall_seconds() - t0) * 1000.0;
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

asio::awaitable<std::exception_ptr> shadow_body(BrowserPage& page, asio::awaitable<void> cua,
                                                std::function<boost::json::value()> cua_text,
                                                const ObserverOptions options) {
  VisionClient& client = options.vision() ? *options.vision() : default_client();
  const Site site(options.hotspot_id(), options.run_id());
  auto vision_leg = observe(client, borrowed(page), options.flow_context(), site, options.high_stakes());
  auto cua_leg = _cua_run(std::move(cua));
  auto [vision, agent] = co_await runtime::both(std::move(vision_leg), std::move(cua_leg));

  auto record = record_header(co_await runtime::wall_seconds(), site.run_id, site.hotspot_id, options.flow_context());
  if (vision.has_value()) {
    record["vision"] = std::move(vision.value());
  } else {
    record["vision"].emplace_object()["error"] = "gather: " + text::exception_text(vision.error());
  }
  auto& cua_block = record["cua"].emplace_object();
  if (agent.has_value()) {
    cua_block["latency_ms"] = text::truncate(agent.value());
    cua_block["text_head"] = cua_text_head(cua_text);
  } else {
    cua_block["error"] = text::exception_text(agent.error());
  }
  _append_shadow_record(record);
  if (!agent.has_value()) mark_cua_origin(agent.error());
  co_return agent.error();
}

}  // namespace

asio::awaitable<std::exception_ptr> shadow_run(BrowserPage& page, asio::awaitable<void> cua,
                                               std::function<boost::json::value()> cua_text, ObserverOptions options) {
  return runtime::entry(shadow_body(page, std::move(cua), std::move(cua_text), std::move(options)));
}

}  // namespace detail
}  // namespace vision
