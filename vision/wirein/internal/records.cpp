#include "vision/wirein/internal/records.hpp"

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <ctime>

#include "vision/text/internal/numbers.hpp"

namespace vision {
namespace {

template <class T>
boost::json::value or_null(const std::optional<T>& value) {
  return value ? boost::json::value(*value) : boost::json::value();
}

boost::json::value entry_or_null(const FlowContext& flow_context, std::string_view key) {
  const auto* value = flow_context.if_contains(key);
  return value ? *value : boost::json::value();
}

std::string utc_timestamp(double wall_seconds) {
  const auto seconds = static_cast<std::time_t>(text::truncate(wall_seconds));
  std::tm utc{};
  char buffer[32];
  if (!::gmtime_r(&seconds, &utc)) return {};
  return {buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

// Only ASCII letters matter: the texts looked for are our own.
std::string lower_case(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return text;
}

}  // namespace

boost::json::object _observe_action_record(const ActionResult& result, boost::json::storage_ptr storage) {
  boost::json::object record(11, std::move(storage));
  record["action"] = result.action;
  record["reason"] = result.reason;
  record["confidence"] = result.confidence;
  record["next_expected_state"] = result.next_expected_state;
  record["x_ratio"] = or_null(result.x_ratio);
  record["y_ratio"] = or_null(result.y_ratio);
  record["model"] = result.model_used;
  record["latency_ms"] = result.latency_ms;
  record["input_tokens"] = result.input_tokens;
  record["output_tokens"] = result.output_tokens;
  record["low_confidence"] = result.low_confidence;
  return record;
}

boost::json::object _vision_block(const ActionResult& result) {
  if (result.action != ActionVerb::declare_failure) return _observe_action_record(result);
  const std::string reason = lower_case(result.reason);
  boost::json::object block;
  if (reason.find("timeout") != std::string::npos) {
    block["timeout"] = true;
    block["elapsed_ms"] = text::truncate(result.latency_ms);
    block["reason"] = result.reason;
    return block;
  }
  if (reason.starts_with("transport error") || reason.starts_with("unexpected error") ||
      reason.find("did not return") != std::string::npos) {
    block["error"] = result.reason;
    block["elapsed_ms"] = text::truncate(result.latency_ms);
    return block;
  }
  return _observe_action_record(result);
}

namespace detail {

boost::json::object record_header(double wall_seconds, const std::optional<std::string>& run_id,
                                  const std::string& hotspot_id, const FlowContext& flow_context) {
  constexpr std::size_t usual_size = 2048, members = 12;
  boost::json::object record(members, boost::json::make_shared_resource<boost::json::monotonic_resource>(usual_size));
  record["ts"] = utc_timestamp(wall_seconds);
  record["run_id"] = or_null(run_id);
  record["hotspot_id"] = hotspot_id;
  record["phase"] = entry_or_null(flow_context, "phase");
  record["agent"] = entry_or_null(flow_context, "platform");
  return record;
}

}  // namespace detail
}  // namespace vision
