#include "tools/report/command.hpp"

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <memory>

#include "tools/progress.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/json_report.hpp"
#include "tools/report/pages.hpp"
#include "tools/report/report.hpp"
#include "tools/report/text_report.hpp"
#include "tools/viewport.hpp"
#include "vision/text/internal/numbers.hpp"

namespace report {
namespace {

struct Arguments {
  std::vector<std::string> logs, labels, sites, models;
  std::string fixtures, prices, since, out;
  std::string viewport = "1280x800";
  bool json = false, split = false;
  Criteria criteria;
  TallyOptions tally;
};

void add_options(CLI::App& command, Arguments& a) {
  const auto several = [&](const char* name, std::vector<std::string>& into, const char* text) {
    command.add_option(name, into, text)->allow_extra_args(false);
  };
  const CLI::Range share(0.01, 0.999), confidence(0.5, 0.9999);
  const CLI::Range few(std::size_t{0}, std::size_t{1000});
  command.add_option("LOG", a.logs, "shadow logs: files, quoted globs, - for standard input; plain, gzip or Zstandard")
      ->required();
  command.add_option("--fixtures", a.fixtures, "the folder of screenshots, tests/fixtures/vision/auto of the workers");
  command.add_option("--out", a.out, "where the pages go: report.html, or the folder report with --split");
  command.add_flag("--split", a.split, "a folder with a page for every site instead of one page");
  command.add_flag("--json", a.json, "everything as JSON on standard output; pages only with --out");
  several("--labels", a.labels, "judgements by eye (JSON Lines), as the report's page saves them");
  command.add_option("--prices", a.prices, "a price table instead of the built-in one");
  command.add_option("--since", a.since, "leave out what is older: 2026-11-16, 2026-11-16T19:05:00Z, 7d or 12h");
  several("--site", a.sites, "only this site; may be repeated");
  several("--model", a.models, "only this model; may be repeated");
  command.add_option("--confidence", a.criteria.confidence, "of the bounds, 0.95")->check(confidence);
  command.add_option("--agreement", a.criteria.agreement, "what the lower bound must reach, 0.80")->check(share);
  command
      .add_option("--mission-success", a.criteria.mission_success,
                  "a site whose missions surely succeed less often is demoted, 0.50")
      ->check(share);
  command.add_option("--viewport", a.viewport, "CSS pixels for distances where the log has none, 1280x800");
  command.add_option("--worst", a.tally.worst, "disagreements shown per site and model, 10")->check(few);
  command.add_option("--judge", a.tally.to_judge, "proposals to judge by eye per site and model, 20")->check(few);
  command.add_option("--missions", a.tally.missions, "film strips per site and model, 3")->check(few);
}

std::int64_t parse_since(const std::string& text, std::int64_t now) {
  const auto exact = parse_timestamp(text.size() == 10 ? text + "T00:00:00Z" : text);
  if (exact) return *exact;
  const auto count = text.empty() ? std::nullopt : vision::text::parse_integer(text.substr(0, text.size() - 1));
  constexpr std::int64_t hour = 3600, longest = 1'000'000;
  if (count && *count >= 0 && *count <= longest && text.back() == 'd') return now - *count * 24 * hour;
  if (count && *count >= 0 && *count <= longest && text.back() == 'h') return now - *count * hour;
  throw InputError("--since takes 2026-11-16, 2026-11-16T19:05:00Z, 7d or 12h, not \"" + text + "\"");
}

void complain_of(const Report& report) {
  const InputStats& input = report.input;
  for (const auto& damaged : input.damaged) {
    fmt::print(stderr, "vision: warning: {}; the records before the damage are counted\n", damaged);
  }
  if (input.skipped > 0) fmt::print(stderr, "vision: skipped {} lines that are not records\n", input.skipped);
  if (report.counted > 0) return;
  fmt::print(stderr, "vision: {}\n",
             input.records == 0 ? "the input holds no records" : "--since, --site and --model leave no records");
}

int run(Arguments& a) {
  const std::int64_t now = std::time(nullptr);
  if (!a.since.empty()) a.tally.since = parse_since(a.since, now);
  const auto [width, height] = tools::parse_viewport(a.viewport);
  a.tally.viewport = {static_cast<double>(width), static_cast<double>(height)};
  a.tally.sites.insert(a.sites.begin(), a.sites.end());
  a.tally.models.insert(a.models.begin(), a.models.end());
  const Prices prices = a.prices.empty() ? Prices::built_in() : Prices::load(a.prices);
  Labels labels;
  for (const auto& path : a.labels) labels.load(path);
  std::unique_ptr<Fixtures> fixtures;
  if (!a.fixtures.empty()) fixtures = std::make_unique<Fixtures>(a.fixtures);

  const auto paths = expand(a.logs);
  Tally tally(a.tally, labels, fixtures.get());
  InputStats input;
  {
    tools::Progress progress(total_size(paths));
    input = read_logs(
        paths, [&](const Record& record) { tally.add(record); }, [&](std::uint64_t bytes) { progress.at(bytes); });
  }
  tally.finish();

  Report report = make_report(tally, a.tally, a.criteria, prices);
  add_looking_costs(report);
  report.created = now;
  report.input = input;
  report.labels = {labels.size(), labels.unused(), labels.ambiguous()};
  complain_of(report);
  const std::string output = a.json ? json_report(report, fixtures.get()) : text_report(report);
  if (std::fwrite(output.data(), 1, output.size(), stdout) != output.size() || std::fflush(stdout) != 0) {
    throw std::runtime_error("cannot write to standard output");
  }
  if (!a.json || !a.out.empty()) {
    const std::string out = !a.out.empty() ? a.out : a.split ? "report" : "report.html";
    const std::string first_page = write_pages(report, fixtures.get(), out, a.split);
    if (!a.json) fmt::print("report: {}\n", first_page);
  }
  return report.all_promoted() ? 0 : 1;
}

}  // namespace

std::function<int()> add_command(CLI::App& app) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand("report", "Judges from shadow logs which sites may act, and shows why.");
  command->footer("\nExit status: 0 when every site (or every --site) is PROMOTE, 1 when not, 2 for bad input.");
  add_options(*command, *arguments);
  return [arguments] { return run(*arguments); };
}

}  // namespace report
