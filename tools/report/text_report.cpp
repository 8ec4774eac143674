#include "tools/report/text_report.hpp"

#include "vision/text/internal/utf8.hpp"

namespace report {

std::string text_report(const Report& report) {
  std::string out;
  const auto line = [&out](std::string_view indent, const std::string& name, const Judgement& judgement) {
    out += std::string(indent) + vision::text::one_line(name) + ": " + std::string(report::name(judgement.verdict)) +
           ": " + vision::text::one_line(judgement.reason) + "\n";
  };
  for (const auto& site : report.sites) {
    line("", site.name, site.judgement);
    if (site.models.size() < 2) continue;
    for (const auto& model : site.models) line("  ", model.name, model.judgement);
  }
  return out;
}

}  // namespace report
