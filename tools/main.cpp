#include <fmt/core.h>

#include <CLI/CLI.hpp>

#include "tools/replay/command.hpp"
#include "tools/report/command.hpp"

namespace {

constexpr int bad_input = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Tools for operating the vision tier.\n");
  app.set_version_flag("--version", VISION_VERSION);
  app.require_subcommand(1);
  const auto run_report = report::add_command(app);
  const auto run_replay = replay::add_command(app);
  try {
    app.parse(argc, argv);
    return app.got_subcommand("replay") ? run_replay() : run_report();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : bad_input;  // --help and --version end here too
  } catch (const std::exception& error) {
    fmt::print(stderr, "vision: {}\n", error.what());
    return bad_input;
  }
}
