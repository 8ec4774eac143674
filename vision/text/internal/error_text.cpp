#include "vision/text/internal/error_text.hpp"

#include <cxxabi.h>

#include <boost/core/demangle.hpp>
#include <string_view>

#include "vision/text/internal/utf8.hpp"
#include "vision/text/named_error.hpp"

namespace vision::text {
namespace {

constexpr std::size_t max_message_code_points = 200;

// What libraries put around a thrown error's type.
constexpr std::string_view wrappers[] = {
    "boost::wrapexcept<",
    "boost::exception_detail::clone_impl<",
    "boost::exception_detail::error_info_injector<",
    "std::_Nested_exception<",
};

std::string current_type_name() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  return type ? unqualified_type_name(boost::core::demangle(type->name())) : "unknown";
}

}  // namespace

std::string unqualified_type_name(std::string name) {
  for (bool unwrapped = true; unwrapped;) {
    unwrapped = false;
    for (const std::string_view wrapper : wrappers) {
      if (!name.starts_with(wrapper) || !name.ends_with('>')) continue;
      name = trim(std::string_view(name).substr(wrapper.size(), name.size() - wrapper.size() - 1));
      unwrapped = true;
    }
  }
  std::string out;
  int depth = 0;
  for (const char c : name) {
    if (c == '<' || c == '(' || c == '[') ++depth;
    if (depth == 0) out += c;
    if (c == '>' || c == ')' || c == ']') --depth;
  }
  const auto scope = out.rfind("::");
  return scope == std::string::npos ? out : out.substr(scope + 2);
}

ErrorDescription describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    const auto* named = dynamic_cast<const NamedError*>(&e);
    return {named ? named->kind_name() : current_type_name(), e.what() ? e.what() : ""};
  } catch (const std::string& text) {
    return {"string", text};
  } catch (const char* text) {
    return {"char*", text ? text : ""};
  } catch (...) {
    return {current_type_name(), ""};
  }
}

std::string exception_text(const std::exception_ptr& error) {
  const ErrorDescription d = describe(error);
  return d.kind + ": " + std::string(first_code_points(d.message, max_message_code_points));
}

std::string full_exception_text(const std::exception_ptr& error) {
  const ErrorDescription d = describe(error);
  return d.kind + ": " + d.message;
}

}  // namespace vision::text
