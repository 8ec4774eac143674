#include "bindings/c/errors.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <memory>
#include <optional>
#include <string_view>

#include "bindings/c/exit_gate.hpp"
#include "vision/client/api_error.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/shadow_mode.hpp"

namespace vision::c {
namespace {

// What every error of the host's carries, whatever it is to the library.
class Foreign : public CuaOriginMark {
 public:
  Foreign(std::string kind, const vision_error& error)
      : kind_(std::move(kind)),
        token_(error.token, [release = error.release](void* token) { call_host(release, token); }) {}

  const char* kind() const noexcept { return kind_.c_str(); }
  void* token() const noexcept { return token_.get(); }

 private:
  std::string kind_;
  std::shared_ptr<void> token_;
};

class HostError : public std::runtime_error, public NamedError, public Foreign {
 public:
  HostError(const std::string& message, Foreign foreign) : std::runtime_error(message), Foreign(std::move(foreign)) {}
  const char* kind_name() const noexcept override { return kind(); }
};

// One that the ask call retries.
class HostTransportError : public APIConnectionError, public Foreign {
 public:
  HostTransportError(const std::string& message, Foreign foreign)
      : APIConnectionError(message), Foreign(std::move(foreign)) {}
  const char* kind_name() const noexcept override { return kind(); }
};

bool is_transport_kind(std::string_view kind) {
  constexpr std::array<std::string_view, 4> kinds = {"APIConnectionError", "APITimeoutError", "RateLimitError",
                                                     "InternalServerError"};
  return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

void* token_of(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const Foreign& foreign) {
    return foreign.token();
  } catch (...) {
    return nullptr;
  }
}

bool is_abort(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const boost::system::system_error& e) {
    return e.code() == boost::asio::error::operation_aborted;
  } catch (...) {
    return false;
  }
}

thread_local std::optional<ErrorForHost> last_error;

}  // namespace

std::exception_ptr to_exception(const vision_error& error) {
  std::string kind = error.kind && *error.kind ? error.kind : "Error";
  const std::string message(error.message ? error.message : "", error.message ? error.message_size : 0);
  const bool is_transport = (error.flags & VISION_TRANSPORT_ERROR) != 0 || is_transport_kind(kind);
  Foreign foreign(std::move(kind), error);
  if (is_transport) return std::make_exception_ptr(HostTransportError(message, std::move(foreign)));
  return std::make_exception_ptr(HostError(message, std::move(foreign)));
}

ErrorForHost::ErrorForHost(const std::exception_ptr& error, bool was_cancelled) {
  if (was_cancelled && is_abort(error)) {
    kind_ = "Cancelled";
    message_ = "the operation was cancelled";
    error_.flags = VISION_CANCELLED;
  } else {
    auto described = text::describe(error);
    kind_ = std::move(described.kind);
    message_ = std::move(described.message);
    error_.token = token_of(error);
    if (is_cua_origin(error)) error_.flags = VISION_CUA_ORIGIN;
  }
  error_.kind = kind_.c_str();
  error_.message = message_.c_str();
  error_.message_size = message_.size();
}

void set_last_error(const std::exception_ptr& error) {
  last_error.emplace(error);
}

}  // namespace vision::c

const vision_error* vision_last_error(void) {
  return vision::c::last_error ? &vision::c::last_error->get() : nullptr;
}
