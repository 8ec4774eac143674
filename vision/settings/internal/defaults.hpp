#pragma once

#include <string>
#include <utility>
#include <vector>

/// @file
/// How settings.hpp's defaults are made, and the prices behind the cost estimate.
namespace vision::detail {

/// Reads the text of KX_VISION_TIMEOUT_S as seconds. Returns the default of 20.0 for
/// null, for an empty or unreadable text, and for a value that is not positive or not
/// finite.
double timeout_from_text(const char* text) noexcept;

/// Prices in US dollars per million tokens, light model first. One entry, at
/// the heavy price, when both have the same identifier. The latter two throw what
/// MODEL_SONNET() throws.
using PriceMap = std::vector<std::pair<std::string, double>>;
PriceMap make_price_map(const std::string& light, double light_price, const std::string& heavy, double heavy_price);
const PriceMap& COST_PER_MTOK_INPUT();
const PriceMap& COST_PER_MTOK_OUTPUT();

}  // namespace vision::detail
