#pragma once

#include <boost/json/object.hpp>
#include <optional>
#include <string>
#include <utility>

#include "vision/client/vision_client.hpp"

namespace vision {

/// The parameters of shadow_observe_then_cua, observe_only and observe_in_background:
/// the two required ones in the constructor, the others by chained setters.
class ObserverOptions {
 public:
  /// The flow context, passed on unchanged, and the caller's name of the place in
  /// the pipeline, for the record and the fixture name.
  ObserverOptions(FlowContext flow_context, std::string hotspot_id)
      : flow_context_(std::move(flow_context)), hotspot_id_(std::move(hotspot_id)) {}

  /// The client; it must outlive the call. Default: default_client().
  ObserverOptions& vision(VisionClient& value) & {
    vision_ = &value;
    return *this;
  }
  /// The pipeline run, for the record and the fixture name. Default: not set.
  ObserverOptions& run_id(std::optional<std::string> value) & {
    run_id_ = std::move(value);
    return *this;
  }
  /// Forces the heavy model. Default false.
  ObserverOptions& high_stakes(bool value) & {
    high_stakes_ = value;
    return *this;
  }
  /// What the scripted step acted on, recorded unchanged; shadow_observe_then_cua
  /// ignores it. Default: an empty map.
  ObserverOptions& dom_ground_truth(boost::json::object value) & {
    dom_ground_truth_ = std::move(value);
    return *this;
  }

  ///@{
  /// The setters on a temporary, which they return by value.
  ObserverOptions vision(VisionClient& value) && { return std::move(vision(value)); }
  ObserverOptions run_id(std::optional<std::string> value) && { return std::move(run_id(std::move(value))); }
  ObserverOptions high_stakes(bool value) && { return std::move(high_stakes(value)); }
  ObserverOptions dom_ground_truth(boost::json::object value) && {
    return std::move(dom_ground_truth(std::move(value)));
  }
  ///@}

  ///@{
  /// The value that was set, or its default.
  const FlowContext& flow_context() const noexcept { return flow_context_; }
  const std::string& hotspot_id() const noexcept { return hotspot_id_; }
  VisionClient* vision() const noexcept { return vision_; }
  const std::optional<std::string>& run_id() const noexcept { return run_id_; }
  bool high_stakes() const noexcept { return high_stakes_; }
  const boost::json::object& dom_ground_truth() const noexcept { return dom_ground_truth_; }
  ///@}

 private:
  FlowContext flow_context_;
  std::string hotspot_id_;
  VisionClient* vision_ = nullptr;
  std::optional<std::string> run_id_;
  bool high_stakes_ = false;
  boost::json::object dom_ground_truth_;
};

}  // namespace vision
