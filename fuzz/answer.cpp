// Any JSON value as the model's answer, and as the input of a well-formed one:
// a result whose fields keep their ranges, or one of two errors.
#include "fuzz/input.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/records/errors.hpp"
#include "vision/settings/settings.hpp"

namespace vision::fuzz {
namespace json = boost::json;

void check(Input input) {
  const auto width = input.number<std::int16_t>(), height = input.number<std::int16_t>();
  const auto meta = width != 0 ? std::optional(ImgMeta(width, height, 2.0, 0.0)) : std::nullopt;
  const json::value value = input.document();
  const json::object call{{"type", "tool_use"}, {"name", "propose_action"}, {"input", value}};
  const json::value responses[] = {value, json::object{{"content", json::array{call}}}};
  for (const auto& response : responses) {
    try {
      const ActionResult result = _parse_response(response, "model", 12.5, meta);
      for (const double ratio : {result.x_ratio.value_or(0), result.y_ratio.value_or(0)})
        require(ratio >= 0 && ratio <= 1, "a place is within the viewport");
      require(result.text != "" && result.key != "", "text and key are absent or not empty");
      require(result.model_used == "model" && result.latency_ms == 12.5, "what the caller knows is kept");
      const bool call_found = result.reason != "model did not return propose_action tool call";
      require(call_found || result.action == ActionVerb::declare_failure, "no call is a failure");
      require(call_found || &response == responses || value.is_null(), "the call is found");
      require(result.low_confidence == (call_found && result.confidence < LOW_CONFIDENCE_THRESHOLD),
              "low confidence is marked");
    } catch (const InvalidResponse&) {
    } catch (const ConversionError&) {
    }
  }
}

}  // namespace vision::fuzz
