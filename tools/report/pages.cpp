#include "tools/report/pages.hpp"

#include <fmt/core.h>

#include <filesystem>
#include <fstream>

#include "tools/html/page.hpp"
#include "tools/report/built_in.hpp"
#include "tools/report/charts.hpp"
#include "tools/report/site_page.hpp"
#include "tools/report/words.hpp"

namespace report {
namespace {

namespace fs = std::filesystem;
using html::escaped;

void write(const fs::path& path, const std::string& title, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file) fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  file << html::page(title, content, {built_in::style, built_in::script});
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

std::string site_id(std::size_t number) {
  return "site-" + std::to_string(number + 1);
}

std::string facts_of(const Report& report) {
  std::int64_t sites = 0, promoted = 0;
  for (const auto& site : report.sites) {
    sites += 1;
    promoted += site.judgement.verdict == Verdict::promote ? 1 : 0;
  }
  const InputStats& input = report.input;
  std::vector<std::pair<std::string, std::string>> facts = {
      {"may act", grouped(promoted) + " of " + counted(sites, "site")},
      {"records", grouped(report.counted) + " of " + grouped(input.records) + " in " + counted(input.files, "file")},
      {"cost", dollars(report.usd) + ", prices of " + report.prices_as_of},
      {"made", timestamp(report.created)}};
  if (report.options.since) facts.emplace_back("since", timestamp(*report.options.since));
  if (input.skipped > 0) facts.emplace_back("lines skipped", grouped(input.skipped));
  if (report.unfinished_missions > 0)
    facts.emplace_back("missions without an end", grouped(report.unfinished_missions));
  if (report.labels.read > 0) facts.emplace_back("labels", grouped(report.labels.read));
  return html::facts(facts);
}

std::string warnings_of(const Report& report) {
  std::string out;
  const auto warn = [&out](const std::string& text) { out += "<p class=\"warning\">" + escaped(text) + "</p>\n"; };
  for (const auto& damaged : report.input.damaged) warn(damaged + "; the records before the damage are counted.");
  if (report.labels.unused > 0) warn(counted(report.labels.unused, "label") + " match no record.");
  if (report.labels.ambiguous > 0) {
    warn(counted(report.labels.ambiguous, "label") + " match several records of the same second and are ignored.");
  }
  for (const auto& model : report.unpriced_models)
    warn("No price for " + model + ": its cost is left out. See --prices.");
  return out;
}

std::string share_cell(const Share& share, const Criteria& criteria) {
  if (!share.value()) return "–";
  return "<strong>" + percent(*share.value()) + "</strong>, at least " +
         percent(lower_bound(share, criteria.confidence));
}

std::string sites_table(const Report& report, bool split) {
  std::string out =
      "<div class=\"wide\" tabindex=\"0\" role=\"region\" aria-label=\"Sites\"><table "
      "class=\"sites\"><caption>Sites</caption><thead><tr><th scope=\"col\">site</th>"
      "<th scope=\"col\">verdict</th><th scope=\"col\">model</th><th scope=\"col\">right action</th>"
      "<th scope=\"col\">right place</th>"
      "<th scope=\"col\">events</th><th scope=\"col\">over time</th><th scope=\"col\">missions</th>"
      "<th scope=\"col\">why</th></tr></thead>\n";
  for (std::size_t i = 0; i < report.sites.size(); ++i) {
    const SiteReport& site = report.sites[i];
    const std::string link =
        "<a href=\"" + (split ? site_id(i) + ".html" : "#" + site_id(i)) + "\">" + escaped(site.name) + "</a>";
    const std::size_t rows = std::max<std::size_t>(1, site.models.size());
    out += fmt::format("<tbody><tr><th scope=\"rowgroup\" rowspan=\"{}\">{}</th>", rows, link);
    if (site.models.empty()) {
      out += "<td>" + pill(site.judgement.verdict) +
             "</td><td>–</td><td>–</td><td>–</td><td>0</td><td></td><td>–</td><td>" + escaped(site.judgement.reason) +
             "</td></tr>";
    }
    for (std::size_t row = 0; row < site.models.size(); ++row) {
      const ModelReport& model = site.models[row];
      const Evidence& e = model.tally->evidence;
      if (row > 0) out += "<tr>";
      out += "<td>" + pill(model.judgement.verdict) + "</td><td>" + escaped(model.name) + "</td><td>" +
             share_cell(e.agreement, report.criteria) + "</td><td>" + share_cell(e.places, report.criteria) +
             "</td><td>" + grouped(e.agreement.trials) + "</td><td>" + sparkline(model.tally->trend) + "</td><td>" +
             (e.missions.trials > 0 ? grouped(e.missions.hits) + " of " + grouped(e.missions.trials) : "–") +
             "</td><td>" + escaped(model.judgement.reason) + "</td></tr>";
    }
    out += "</tbody>\n";
  }
  return scrolling("Sites", out + "</table>\n");
}

std::string how_to_read(const Report& report) {
  const Criteria& c = report.criteria;
  std::string out = fmt::format(
      "<section class=\"card\"><h2>How to read this</h2>\n<p><strong>PROMOTE</strong> takes {} events, {} of them with "
      "the "
      "right action, {} of the places right, and, with {} confidence, a true agreement of at least {}. The last is "
      "what "
      "few events cannot show: 8 of 10 are 80 %, but the truth behind them may be as low as 49 %. "
      "<strong>NOT YET</strong> names what is missing. <strong>INCONCLUSIVE</strong> means that the truth may lie on "
      "either "
      "side of the bar. <strong>DEMOTE</strong> rests on missions: surely fewer than {} succeed.</p>\n",
      Criteria::least_events, percent(Criteria::least_agreement), percent(Criteria::least_near), percent(c.confidence),
      percent(c.agreement), percent(c.mission_success));
  out += fmt::format(
      "<h3>What looking again and again costs</h3>\n<p>The confidence holds for one look. A site whose true agreement "
      "is "
      "{} should not be promoted; this is how often it is:</p>\n<table class=\"narrow\"><thead><tr><th "
      "scope=\"col\">events"
      "</th><th scope=\"col\">looked at once, at the end</th><th scope=\"col\">looked at after every "
      "event</th></tr></thead>"
      "<tbody>\n",
      percent(c.agreement));
  for (const auto& row : report.looking) {
    out += fmt::format("<tr><th scope=\"row\">{}</th><td>{:.1f} %</td><td>{:.1f} %</td></tr>\n", row.events,
                       row.once * 100, row.every_event * 100);
  }
  out += "</tbody></table>\n<p>So decide beforehand after how many events to look";
  if (report.confidence_for_looking) {
    out += fmt::format(
        ", or look as often as you like with <code>--confidence {}</code>, which keeps the error of {} looks "
        "at {:.0f} %",
        *report.confidence_for_looking, report.looking.back().events, (1 - c.confidence) * 100);
  }
  return out + ".</p></section>\n";
}

std::string failures_table(const FailureCounts& failures) {
  std::string out = "<table><thead><tr><th scope=\"col\">day</th>";
  for (const auto& [kind, count] : failures.by_kind()) out += "<th scope=\"col\">" + escaped(kind) + "</th>";
  out += "</tr></thead><tbody>\n";
  for (const auto& [number, kinds] : failures.by_day()) {
    out += "<tr><th scope=\"row\">" + day(number * 86400) + "</th>";
    for (const auto& [kind, total] : failures.by_kind()) {
      const auto found = kinds.find(kind);
      out += "<td>" + (found == kinds.end() ? std::string() : grouped(found->second)) + "</td>";
    }
    out += "</tr>\n";
  }
  out += "</tbody><tfoot><tr><th scope=\"row\">all</th>";
  for (const auto& [kind, count] : failures.by_kind()) out += "<td>" + grouped(count) + "</td>";
  return out + "</tr></tfoot></table>\n";
}

std::string failures_of(const FailureCounts& failures) {
  if (failures.by_kind().empty()) return {};
  return "<section class=\"card\"><h2>Failed calls by day</h2>\n"
         "<p class=\"muted\">They say something about the network and the endpoint, not about the sites, and are left "
         "out "
         "of the verdicts.</p>\n" +
         scrolling("Failed calls by day", failures_table(failures)) + "</section>\n";
}

std::string overview(const Report& report, bool split) {
  return facts_of(report) + warnings_of(report) + sites_table(report, split);
}

constexpr const char* title = "When may it act?";

std::string write_folder(const Report& report, const Fixtures* fixtures, const fs::path& folder) {
  fs::create_directories(folder);
  const fs::path index = folder / "index.html";
  write(index, title, overview(report, true) + how_to_read(report) + failures_of(report.failures));
  for (std::size_t i = 0; i < report.sites.size(); ++i) {
    PictureReader pictures(fixtures);
    write(
        folder / (site_id(i) + ".html"), report.sites[i].name,
        "<p><a href=\"index.html\">All sites</a></p>\n" + site_section(report.sites[i], site_id(i), report, pictures));
  }
  return index.string();
}

}  // namespace

std::string write_pages(const Report& report, const Fixtures* fixtures, const std::string& out, bool split) {
  if (split) return write_folder(report, fixtures, out);
  PictureReader pictures(fixtures);
  std::string content = overview(report, false);
  for (std::size_t i = 0; i < report.sites.size(); ++i) {
    content += site_section(report.sites[i], site_id(i), report, pictures);
  }
  write(out, title, content + how_to_read(report) + failures_of(report.failures));
  return out;
}

}  // namespace report
