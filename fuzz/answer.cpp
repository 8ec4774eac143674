// Any JSON value as the model's answer, and as the input of a well-formed one:
// a result whose fields keep their ranges, or one of two errors.
#include <boost/json/parse.hpp>
#include <cmath>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/client/response.hpp"
#include "vision/records/errors.hpp"
#include "vision/settings/settings.hpp"

namespace {

namespace json = boost::json;
using vision::fuzz::require;

bool is_ratio(const std::optional<double>& value) {
  return !value || (*value >= 0 && *value <= 1);
}

void check(const json::value& response, bool has_call, const std::optional<vision::ImgMeta>& img_meta) {
  std::optional<vision::ActionResult> result;
  try {
    result = vision::_parse_response(response, "model", 12.5, img_meta);
  } catch (const vision::InvalidResponse&) {
    return;
  } catch (const vision::ConversionError&) {
    return;
  }
  require(is_ratio(result->x_ratio) && is_ratio(result->y_ratio), "a place is within the viewport");
  require(!result->text || !result->text->empty(), "no text to type is empty");
  require(!result->key || !result->key->empty(), "no key is empty");
  require(result->model_used == "model" && result->latency_ms == 12.5, "what the caller knows is kept");
  const bool call_found = result->reason != "model did not return propose_action tool call";
  require(call_found || result->action == vision::ActionVerb::declare_failure, "no call is a failure");
  require(call_found || !has_call, "the call is found");
  require(result->low_confidence == (call_found && result->confidence < vision::LOW_CONFIDENCE_THRESHOLD),
          "low confidence is told");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const vision::ImgMeta img_meta(input.number<std::int16_t>(), input.number<std::int16_t>(), 2.0, 0.0);
  json::value value;
  if (input.rest().starts_with('{')) {
    boost::system::error_code error;
    value = json::parse(input.rest(), error);
    if (error) return -1;  // of no use to the corpus
  } else {
    value = input.value();
  }
  for (const auto& meta : {std::optional(img_meta), std::optional<vision::ImgMeta>()}) {
    check(value, false, meta);
    json::object call{{"type", "tool_use"}, {"name", "propose_action"}, {"input", value}};
    check(json::object{{"content", json::array{call}}}, !value.is_null(), meta);
  }
  return 0;
}
