#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <utility>

#include "tools/check/command.hpp"
#include "tools/replay/command.hpp"
#include "tools/report/command.hpp"

namespace {

constexpr int bad_input = 2;

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Tools for operating the vision tier.\n");
  app.set_version_flag("--version", VISION_VERSION);
  app.require_subcommand(1);
  const std::pair<const char*, std::function<int()>> commands[] = {
      {"report", report::add_command(app)}, {"check", check::add_command(app)}, {"replay", replay::add_command(app)}};
  try {
    app.parse(argc, argv);
    for (const auto& [name, run] : commands) {
      if (app.got_subcommand(name)) return run();
    }
    return bad_input;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : bad_input;  // --help and --version end here too
  } catch (const std::exception& error) {
    fmt::print(stderr, "vision: {}\n", error.what());
    return bad_input;
  }
}
