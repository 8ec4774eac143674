#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value_from.hpp>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"
#include "vision/wirein/internal/host_callable.hpp"
#include "vision/wirein/observer_options.hpp"

namespace vision {

/// Mixed into a host's error types, so that an error of the computer-use agent
/// can be told from any other when it comes out of shadow_observe_then_cua:
///
///   class AgentError : public std::runtime_error, public vision::CuaOriginMark { ... };
///
/// Errors without it, or with it as a private or ambiguous base, pass through
/// unmarked. The mark belongs to one exception object and stays on it: a copy has
/// none, but a host that keeps an exception_ptr and throws the same object again
/// throws it marked.
class CuaOriginMark {
 public:
  ///@{
  /// New and copied objects are unmarked; assignment keeps the target's mark.
  CuaOriginMark() = default;
  CuaOriginMark(const CuaOriginMark&) noexcept {}
  CuaOriginMark& operator=(const CuaOriginMark&) noexcept { return *this; }
  ///@}
  virtual ~CuaOriginMark() = default;
  /// True once shadow mode has re-raised this very object from its computer-use agent (CUA).
  bool _kx_cua_origin = false;
};

/// Whether the error that was caught carries the mark: "did this come from the
/// computer-use agent?". False for null, and for a type that cannot carry it.
bool is_cua_origin(const std::exception_ptr& error) noexcept;

/// The same for a caught std::exception.
bool is_cua_origin(const std::exception& error) noexcept;

namespace detail {

/// The result's "text" entry, null when the result is not a map or has none.
template <class Result>
boost::json::value text_entry(const Result& result) {
  if constexpr (std::is_same_v<Result, boost::json::value>) {
    const auto* map = result.if_object();
    return map ? text_entry(*map) : boost::json::value();
  } else if constexpr (std::is_same_v<Result, boost::json::object>) {
    const auto* text = result.if_contains("text");
    return text ? *text : boost::json::value();
  } else if constexpr (requires { result.find(std::string("text"))->second; }) {
    using Text = std::decay_t<decltype(result.find(std::string("text"))->second)>;
    if constexpr (boost::json::has_value_from<Text>::value) {
      const auto text = result.find(std::string("text"));
      bool has_text = text != result.end();
      if constexpr (std::is_pointer_v<Text>) has_text = has_text && text->second;
      if (has_text) return boost::json::value_from(text->second);
    }
    return {};
  } else {
    return {};
  }
}

/// Shadow mode without the type of the CUA's result: runs the agent and the observation, writes the
/// record, returns the CUA's error, marked, or null.
boost::asio::awaitable<std::exception_ptr> shadow_run(BrowserPage& page, boost::asio::awaitable<void> cua,
                                                      std::function<boost::json::value()> cua_text,
                                                      ObserverOptions options);

}  // namespace detail

/// Runs the computer-use agent `cua_fn` and, beside it, one vision observation of
/// the same situation, which never touches the page; appends one record with both
/// outcomes to the shadow log; returns what `cua_fn` yields, or throws the very
/// exception object that it threw, marked by CuaOriginMark where its type allows.
///
/// `cua_fn` is called once, without arguments, and returns an awaitable of any type,
/// void and move-only types included. Store a capturing lambda in a named variable and
/// move it in: g++ 12 destroys one that is written inside a co_await expression twice.
/// The observation starts first; neither interrupts the other, and the call ends when
/// both have ended: `cua_fn`, which has no limit, and the observation, whose limit is
/// DEFAULT_TIMEOUT_S + 8 seconds. Vision's failures end up in the record only.
///
/// When `cua_fn`'s result is a map with a "text" entry (boost::json::object or
/// value, or a map from std::string), its first 200 code points are recorded.
///
/// Throws what default_client() throws when no client is given; `cua_fn` is not
/// called then. Cancellation ends both; no record is written then. `page`
/// must outlive the operation.
template <detail::AsyncCallable CuaFn>
boost::asio::awaitable<detail::awaited_t<CuaFn>> shadow_observe_then_cua(BrowserPage& page, CuaFn cua_fn,
                                                                         ObserverOptions options) {
  std::optional<detail::stored_t<detail::awaited_t<CuaFn>>> result;
  auto cua = detail::await_into(result, cua_fn);
  std::function<boost::json::value()> cua_text = [&result] { return detail::text_entry(*result); };
  const auto error = co_await detail::shadow_run(page, std::move(cua), std::move(cua_text), std::move(options));
  if (error) std::rethrow_exception(error);
  if constexpr (!std::is_void_v<detail::awaited_t<CuaFn>>) co_return std::move(*result);
}

}  // namespace vision
