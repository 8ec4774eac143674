#pragma once

#include <string>
#include <string_view>

#include "tools/report/picture_reader.hpp"
#include "tools/report/report.hpp"

namespace report {

/// The markup of one site: its verdict, and for each model the evidence, the worst
/// disagreements, what can be judged by eye, and film strips. `id` is unique on the
/// page: letters, digits and hyphens.
std::string site_section(const SiteReport& site, const std::string& id, const Report& report, PictureReader& pictures);

/// A table that scrolls sideways on its own where it is wider than the page, by keys
/// too. `name` tells assistive technology what it is.
std::string scrolling(std::string_view name, const std::string& table);

/// The verdict's word in its colour.
std::string pill(Verdict verdict);

}  // namespace report
