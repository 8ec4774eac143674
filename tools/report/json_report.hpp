#pragma once

#include <string>

#include "tools/report/report.hpp"

namespace report {

/// The whole report as one line of JSON; docs/report.md describes its members.
/// `fixtures` may be null.
std::string json_report(const Report& report, const Fixtures* fixtures);

}  // namespace report
