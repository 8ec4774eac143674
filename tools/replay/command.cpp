#include "tools/replay/command.hpp"

#include <fmt/core.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "tools/replay/ask_again.hpp"
#include "tools/replay/rerun.hpp"
#include "vision/text/internal/utf8.hpp"

namespace replay {
namespace {

using vision::text::one_line;

struct Arguments {
  std::string cassette, log, model, out = "replay";
};

int run_again(const Arguments& a) {
  if (!a.log.empty() && std::filesystem::exists(a.log)) {
    throw std::runtime_error(a.log + " exists already: name another file");
  }
  ::setenv("KX_VISION_SHADOW_LOG", a.log.empty() ? "/dev/null" : a.log.c_str(), 1);
  ::unsetenv("KX_VISION_FIXTURE_AUTO");
  const Rerun result = rerun(a.cassette);
  fmt::print("mission {}{}: {} recorded calls, {:.1f} s\n", result.site,
             result.run.empty() ? "" : ", run " + result.run, result.calls, result.seconds);
  fmt::print("verdict: {}\n", one_line(result.verdict.action + ": " + result.verdict.reason));
  for (const auto& difference : result.differences) fmt::print("difference: {}\n", one_line(difference));
  if (result.differences.empty()) fmt::print("no difference\n");
  return result.differences.empty() ? 0 : 1;
}

int compare_models(const Arguments& a) {
  const Comparison result = ask_again(a.cassette, a.model, a.out);
  fmt::print("{} requests: {} answered with the recorded action, {} not answered\n", result.asked, result.same,
             result.failed);
  fmt::print("to compare and judge: vision report {} --fixtures {} --viewport {}\n", result.log, result.fixtures,
             result.viewport);
  return result.failed == 0 ? 0 : 1;
}

}  // namespace

std::function<int()> add_command(CLI::App& app) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand("replay", "Runs a recorded mission again and shows what differs.");
  command->footer(
      "\nExit status: 0 when nothing differs (with --model: when all requests were answered), 1 when not, "
      "2 for a cassette that cannot be used.");
  command->add_option("CASSETTE", arguments->cassette, "the folder of the recording")->required();
  command->add_option("--log", arguments->log, "where the mission's shadow log goes; without it, nowhere");
  CLI::Option* model = command->add_option("--model", arguments->model,
                                           "ask this model the recorded requests, at the endpoint and with the key of "
                                           "the environment, in place of the replay");
  command->add_option("--out", arguments->out, "with --model: the folder for what vision report reads, replay")
      ->needs(model);
  return [arguments] {
    spdlog::set_level(spdlog::level::warn);  // of the library's log lines; the output says the rest
    return arguments->model.empty() ? run_again(*arguments) : compare_models(*arguments);
  };
}

}  // namespace replay
