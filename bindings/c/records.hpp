#pragma once

#include <boost/json/object.hpp>

#include "bindings/c/options.hpp"
#include "vision/client/metrics.hpp"
#include "vision/records/action_result.hpp"
#include "vision/records/img_meta.hpp"

namespace vision::c {

///@{
/// The library's records as the host gets them: all members, under their own names.
boost::json::object to_json(const ActionResult& result);
boost::json::object to_json(const ImgMeta& meta);
boost::json::object to_json(const VisionMetrics& metrics);
///@}

///@{
/// The same records from the host. Throw what Options does. A result needs its action
/// only, the metadata all its members.
ActionResult action_result_from(Options members);
ImgMeta img_meta_from(Options members);
///@}

}  // namespace vision::c
