// A message from the browser is a JSON value with well-formed texts, or an error
// after which its waiter can still be found.
#include <boost/json/parse.hpp>

#include "chromium/errors.hpp"
#include "chromium/message.hpp"
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "fuzz/reference_utf8.hpp"

namespace json = boost::json;
using vision::fuzz::require;

namespace {

// Of a lone surrogate, which scripts can make, nothing may be left.
void require_well_formed(const json::value& value) {
  if (const auto* text = value.if_string()) require(vision::fuzz::well_formed(*text) == *text, "texts are well-formed");
  if (const auto* list = value.if_array()) {
    for (const auto& item : *list) require_well_formed(item);
  }
  if (const auto* map = value.if_object()) {
    for (const auto& entry : *map) require_well_formed(entry.value());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vision::fuzz::Input(data, size).rest();
  boost::system::error_code error;
  json::parse_options options;
  options.max_depth = 256;
  const json::value strict = json::parse(text, error, {}, options);
  const auto id = vision::chromium::leading_id(text);
  try {
    const json::value message = vision::chromium::parse_message(text);
    require(error || message == strict, "a strict reader's value");
    require_well_formed(message);
    const auto* object = message.if_object();
    const bool one_id = text.find("\"id\"") == text.rfind("\"id\"") && text.find("\\u") == text.npos;
    const auto* told = object && one_id ? object->if_contains("id") : nullptr;
    if (told && told->is_int64() && id)
      require(*id == static_cast<std::uint64_t>(told->get_int64()), "the id is found");
  } catch (const vision::chromium::BrowserError&) {
    require(error.failed(), "what a strict reader accepts is accepted");
  }
  return 0;
}
