#include "vision/replay/internal/recorded_error.hpp"

#include <boost/json/value_to.hpp>
#include <string>
#include <utility>

#include "vision/client/api_error.hpp"
#include "vision/replay/cassette.hpp"
#include "vision/text/internal/error_text.hpp"

namespace vision::detail {
namespace json = boost::json;
namespace {

using Reason = APIConnectionError::Reason;
constexpr std::pair<Reason, const char*> reasons[] = {
    {Reason::other, "other"},
    {Reason::unreachable, "unreachable"},
    {Reason::timed_out, "timed_out"},
    {Reason::broken_off, "broken_off"},
    {Reason::untrusted_certificate, "untrusted_certificate"},
    {Reason::expired_certificate, "expired_certificate"},
    {Reason::wrong_host, "wrong_host"},
    {Reason::old_protocol, "old_protocol"},
    {Reason::no_tls, "no_tls"},
};

void add(json::object& out, const char* name, const APIConnectionError& error) {
  out["class"] = name;
  for (const auto& [reason, text] : reasons) {
    if (reason == error.reason()) out["reason"] = text;
  }
}

void add(json::object& out, const char* name, const APIStatusError& error) {
  out["class"] = name;
  out["status"] = error.status();
  out["type"] = error.type();
  out["request_id"] = error.request_id();
}

std::string member(const json::object& error, const char* name) {
  return json::value_to<std::string>(error.at(name));
}

// An error of a class that a host derived has its own name; that class is not known here.
template <class Base, class Detail>
[[noreturn]] void throw_as(const json::object& error, Detail detail) {
  struct Named : Base {
    Named(const json::object& from, Detail more) : Base(member(from, "message"), more), kind(member(from, "kind")) {}
    const char* kind_name() const noexcept override { return kind.c_str(); }
    std::string kind;
  };
  Base plain(member(error, "message"), detail);
  if (plain.kind_name() == member(error, "kind")) throw plain;
  throw Named(error, std::move(detail));
}

template <class Base>
[[noreturn]] void throw_connection(const json::object& error) {
  Reason reason = Reason::other;
  for (const auto& [known, text] : reasons) {
    if (text == member(error, "reason")) reason = known;
  }
  throw_as<Base>(error, reason);
}

[[noreturn]] void throw_status(const json::object& error) {
  const int status = json::value_to<int>(error.at("status"));
  const APIStatusError::Details details{status, member(error, "type"), member(error, "request_id")};
  const std::string name = member(error, "class");
  if (name == "RateLimitError") throw_as<RateLimitError>(error, details);
  if (name == "InternalServerError") throw_as<InternalServerError>(error, details);
  try {
    throw_status_error(member(error, "message"), details);
  } catch (const APIStatusError& usual) {
    if (usual.kind_name() == member(error, "kind")) throw;
  }
  throw_as<APIStatusError>(error, details);
}

}  // namespace

json::object describe_error(const std::exception_ptr& error) {
  const auto [kind, message] = text::describe(error);
  json::object out{{"kind", kind}, {"message", message}};
  try {
    std::rethrow_exception(error);
  } catch (const APITimeoutError& e) {
    add(out, "APITimeoutError", e);
  } catch (const APIConnectionError& e) {
    add(out, "APIConnectionError", e);
  } catch (const RateLimitError& e) {
    add(out, "RateLimitError", e);
  } catch (const InternalServerError& e) {
    add(out, "InternalServerError", e);
  } catch (const APIStatusError& e) {
    add(out, "APIStatusError", e);
  } catch (const APIResponseValidationError&) {
    out["class"] = "APIResponseValidationError";
  } catch (...) {  // replayed as a RecordedError
  }
  return out;
}

void throw_recorded(const json::object& error) {
  const json::value* name = error.if_contains("class");
  if (name == nullptr) throw RecordedError(member(error, "kind"), member(error, "message"));
  if (*name == "APITimeoutError") throw_connection<APITimeoutError>(error);
  if (*name == "APIConnectionError") throw_connection<APIConnectionError>(error);
  if (*name == "APIResponseValidationError") throw APIResponseValidationError(member(error, "message"));
  throw_status(error);
}

}  // namespace vision::detail
