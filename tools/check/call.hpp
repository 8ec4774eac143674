#pragma once

#include <string>
#include <vector>

#include "tools/check/checklist.hpp"
#include "vision/client/http/http_options.hpp"
#include "vision/records/bytes.hpp"

namespace check {

/// Asks each model once about the picture, as the library does, and pays for it.
void call_models(Checklist& list, const std::vector<std::string>& models, const std::string& key,
                 const vision::HttpOptions& http, const vision::Bytes& picture);

}  // namespace check
