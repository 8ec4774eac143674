#include "vision/replay/internal/mission_note.hpp"

#include <boost/json/value_to.hpp>

namespace vision::detail {
namespace json = boost::json;
namespace {

json::value or_null(const std::optional<std::string>& text) {
  return text ? json::value(*text) : json::value();
}

std::optional<std::string> text_or_none(const json::value& value) {
  if (value.is_null()) return std::nullopt;
  return json::value_to<std::string>(value);
}

}  // namespace

json::object note_of(const ActLoopOptions& options) {
  return {{"flow_context", options.flow_context()},
          {"hotspot_id", options.hotspot_id()},
          {"mission_prompt", or_null(options.mission_prompt())},
          {"run_id", or_null(options.run_id())},
          {"high_stakes", options.high_stakes()},
          {"max_steps", options.max_steps()},
          {"read_only", options.read_only()},
          {"light_model", MODEL_SONNET()},
          {"heavy_model", MODEL_OPUS()}};
}

ActLoopOptions options_of(const json::object& note) {
  ActLoopOptions options(note.at("flow_context").as_object(), json::value_to<std::string>(note.at("hotspot_id")));
  options.mission_prompt(text_or_none(note.at("mission_prompt"))).run_id(text_or_none(note.at("run_id")));
  options.high_stakes(note.at("high_stakes").as_bool()).read_only(note.at("read_only").as_bool());
  options.max_steps(note.at("max_steps").to_number<std::int64_t>());
  return options;
}

}  // namespace vision::detail
