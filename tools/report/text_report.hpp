#pragma once

#include <string>

#include "tools/report/report.hpp"

namespace report {

/// The verdicts for a terminal: a line for every site, and one for each of its
/// models when there are several.
std::string text_report(const Report& report);

}  // namespace report
