#pragma once

#include <string>

#include "tools/report/report.hpp"

namespace report {

/// Writes the report as HTML: one page at `out`, or with `split` a folder at `out`
/// with an overview, index.html, and a page per site. Pages hold their pictures, and
/// load and send nothing. Pictures beyond 64 MB a page are left out, and the page
/// says so. Files have mode 0600, as the screenshots have. Returns the path
/// of the first page. Throws std::runtime_error when a file cannot be written. `fixtures` may
/// be null.
std::string write_pages(const Report& report, const Fixtures* fixtures, const std::string& out, bool split);

}  // namespace report
