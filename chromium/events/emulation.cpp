#include "chromium/events/emulation.hpp"

#include "chromium/protocol/json_object.hpp"

namespace vision::chromium {

std::vector<std::pair<std::string, boost::json::object>> emulation_of(const PageOptions& options) {
  return {
      {"Emulation.setDeviceMetricsOverride",
       make_object("width", options.width(), "height", options.height(), "screenWidth", options.width(), "screenHeight",
                   options.height(), "deviceScaleFactor", options.device_pixel_ratio(), "mobile", false)},
      {"Emulation.setFocusEmulationEnabled", make_object("enabled", true)},
  };
}

}  // namespace vision::chromium
