#pragma once

#include <boost/json/object.hpp>

namespace vision {

/// The caller's description of the workflow: text keys in insertion order. The
/// model sees ten of its keys; the library never changes a caller's map.
using FlowContext = boost::json::object;

}  // namespace vision
