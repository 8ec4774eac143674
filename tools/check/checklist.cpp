#include "tools/check/checklist.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cstdio>

#include "vision/text/internal/utf8.hpp"

namespace check {
namespace json = boost::json;
namespace {

const char* name_of(Finding::Level level) {
  switch (level) {
    case Finding::Level::ok: return "ok";
    case Finding::Level::warning: return "warning";
    case Finding::Level::failure: return "failure";
  }
  return "";
}

}  // namespace

void Checklist::add(Finding finding) {
  if (!as_json_) {
    fmt::print("{:<8} {:<9} {}\n", name_of(finding.level), finding.subject, vision::text::one_line(finding.text));
    if (!finding.advice.empty()) fmt::print("{:18} -> {}\n", "", finding.advice);
    std::fflush(stdout);
  }
  findings_.push_back(std::move(finding));
}

bool Checklist::has_failures() const {
  return std::any_of(findings_.begin(), findings_.end(),
                     [](const Finding& finding) { return finding.level == Finding::Level::failure; });
}

std::string Checklist::json() const {
  json::array checks;
  for (const auto& finding : findings_) {
    json::object& entry = checks.emplace_back(json::object()).get_object();
    entry["subject"] = finding.subject;
    entry["level"] = name_of(finding.level);
    entry["text"] = vision::text::one_line(finding.text);
    if (!finding.advice.empty()) entry["advice"] = finding.advice;
  }
  return json::serialize(json::object{{"ok", !has_failures()}, {"checks", std::move(checks)}}) + "\n";
}

}  // namespace check
