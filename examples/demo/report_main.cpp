// vision-demo-report FOLDER: reads the record of a mission that another program ran, from
// standard input, and writes FOLDER/report.html as vision-demo does. demo.mjs in
// examples/playwright writes such a record.
#include <boost/json/parse.hpp>
#include <boost/json/value_to.hpp>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>

#include "chromium/protocol/remote_value.hpp"
#include "examples/demo/console.hpp"
#include "examples/demo/report.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/wirein/internal/file.hpp"

namespace {

namespace json = boost::json;

// The value of a member, none when that is null.
template <class T>
std::optional<T> member(const json::value& owner, const char* name) {
  const json::value& value = owner.at(name);
  return value.is_null() ? std::nullopt : std::optional(json::value_to<T>(value));
}

template <class T = std::string>
T required(const json::value& owner, const char* name) {
  return json::value_to<T>(owner.at(name));
}

vision::ActionResult result_of(const json::value& value) {
  vision::ActionResult result(required(value, "action"), required(value, "reason"),
                              required<double>(value, "confidence"), required(value, "nextExpectedState"));
  result.x_ratio = member<double>(value, "xRatio");
  result.y_ratio = member<double>(value, "yRatio");
  result.text = member<std::string>(value, "text");
  result.key = member<std::string>(value, "key");
  result.scroll_dy_ratio = member<double>(value, "scrollDyRatio");
  result.duration_ms = member<std::int64_t>(value, "durationMs");
  result.low_confidence = required<bool>(value, "lowConfidence");
  result.model_used = required(value, "modelUsed");
  result.latency_ms = required<double>(value, "latencyMs");
  result.input_tokens = required<std::int64_t>(value, "inputTokens");
  result.output_tokens = required<std::int64_t>(value, "outputTokens");
  return result;
}

demo::MissionRun run_of(const json::value& record) {
  demo::MissionRun run(required(record, "runId"));
  run.brief = required(record, "brief");
  run.started = required<std::time_t>(record, "started");
  run.seconds = required<double>(record, "seconds");
  run.expected = required(record, "link");
  run.invited_rightly = required<bool>(record, "invitedRightly");
  if (!record.at("verdict").is_null()) run.verdict = result_of(record.at("verdict"));
  for (const json::value& value : record.at("steps").as_array()) {
    demo::Step step{vision::chromium::decode_base64(required(value, "screenshot")), std::nullopt};
    if (!value.at("proposal").is_null()) step.proposal = result_of(value.at("proposal"));
    if (step.proposal) run.metrics.record(*step.proposal);
    run.steps.push_back(std::move(step));
  }
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 2) throw std::invalid_argument("usage: vision-demo-report FOLDER < RECORD");
    const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    const json::value record = json::parse(text);
    const demo::ModelChoice model{required<bool>(record, "isLocal"), "", required(record, "lightModel"),
                                  required(record, "heavyModel")};
    vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(model.light, model.heavy));
    const auto folder = std::filesystem::canonical(argv[1]);
    const demo::MissionRun run = run_of(record);
    vision::detail::write_file(folder, "report.html", demo::render_report(run, model));
    std::fputs((demo::summary_text(run, model, {}) + demo::fact_line("report", folder / "report.html")).c_str(),
               stdout);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vision-demo-report: %s\n", error.what());
    return 1;
  }
}
