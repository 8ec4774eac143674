#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "examples/demo/console.hpp"
#include "examples/demo/mission_run.hpp"
#include "examples/demo/options.hpp"
#include "examples/demo/report.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/wirein/internal/file.hpp"
#include "vision/wirein/internal/shadow_log.hpp"
#include "vision/wirein/losses.hpp"

namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;

// usage.txt says what they mean.
enum ExitStatus : int { succeeded = 0, failed = 1, not_started = 2, incomplete = 3, interrupted = 130 };

void say(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

void complain(const std::string& line) {
  std::fprintf(stderr, "vision-demo: %s\n", line.c_str());
}

// Sends everything that the mission writes below `out`, which becomes the current
// directory, and returns its full path. Screenshots and logs show what was on the
// screen: all files are the owner's alone.
fs::path prepare_folder(const fs::path& out, bool local) {
  ::umask(077);
  const char* log = std::getenv("KX_VISION_SHADOW_LOG");
  const fs::path chosen_log = log != nullptr && *log != '\0' ? fs::absolute(log) : fs::path();
  const fs::path full = fs::absolute(out).lexically_normal();
  std::error_code error;
  fs::create_directories(full, error);
  if (!error) fs::current_path(full, error);
  if (error) throw std::runtime_error("cannot use the folder " + full.string() + ": " + error.message());
  setenv("KX_VISION_SHADOW_LOG", (chosen_log.empty() ? full / "vision_shadow.jsonl" : chosen_log).c_str(), 1);
  setenv("KX_VISION_FIXTURE_AUTO", "1", 0);
  if (local) setenv("no_proxy", "127.0.0.1", 1);
  return full;
}

// The library's own log lines: any logger of this name receives them. Losses are
// explained at debug level.
void log_to(const fs::path& path) {
  spdlog::basic_logger_mt("vision", path.string(), true)->set_level(spdlog::level::debug);
}

// Runs the mission until it ends or a signal comes. Throws when it cannot start.
void run_until_signal(const demo::DemoOptions& options, const demo::ModelChoice& model, demo::MissionRun& run) {
  asio::io_context loop;
  asio::cancellation_signal cancel;
  asio::signal_set signals(loop, SIGINT, SIGTERM);
  bool stopped = false;
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    stopped = true;
    complain("interrupted, ending the browser; a second signal ends this program at once");
    signals.clear();
    cancel.emit(asio::cancellation_type::terminal);
  });

  std::exception_ptr failure;
  const demo::OnStep on_step = [](std::size_t number, const vision::ActionResult& proposal) {
    say(demo::step_line(number, proposal));
  };
  asio::co_spawn(loop, demo::run_mission(options, model, run, on_step),
                 asio::bind_cancellation_slot(cancel.slot(), [&](std::exception_ptr error) {
                   failure = error;
                   signals.cancel();
                 }));
  loop.run();
  if (failure && !stopped) std::rethrow_exception(failure);
}

// Whether it could be written; says so.
bool write_report(const fs::path& folder, const demo::MissionRun& run, const demo::ModelChoice& model) {
  try {
    vision::detail::write_file(folder, "report.html", demo::render_report(run, model));
    say(demo::fact_line("report", folder / "report.html"));
    return true;
  } catch (const std::system_error& error) {
    complain(std::string("cannot write the report: ") + error.what());
    return false;
  }
}

int run_demo(demo::DemoOptions options) {
  const demo::ModelChoice model = demo::choose_model(options, [](const char* name) { return std::getenv(name); });
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(model.light, model.heavy));
  if (!options.record.empty()) options.record = fs::absolute(options.record);
  const fs::path out = prepare_folder(options.out, model.local);
  log_to(out / "vision.log");
  demo::MissionRun run(demo::new_run_id());
  say(demo::fact_line("run", run.id) +
      demo::fact_line("model", model.local ? "local: character recognition that follows numbered instructions"
                                           : "hosted: " + model.light + ", heavy " + model.heavy) +
      demo::fact_line("viewport", std::to_string(options.width) + " x " + std::to_string(options.height) +
                                      ", device pixel ratio " + vision::text::shortest(options.dpr)) +
      "starting the browser\n\n");
  run_until_signal(options, model, run);

  const demo::Losses losses{vision::shadow_log_losses(), vision::fixture_losses()};
  say("\n" + demo::summary_text(run, model, losses));
  if (losses.any()) complain("could not write all shadow log records and screenshots; the library's log says why");
  const bool complete = write_report(out, run, model) && !losses.any();
  say(demo::fact_line("library's log", out / "vision.log") + demo::fact_line("shadow log", vision::_shadow_log_path()) +
      demo::fact_line("screenshots", out / "tests/fixtures/vision/auto" / demo::hotspot_id) + "\n");
  if (run.right()) {
    say(demo::headline(run) + "\n");
    return complete ? succeeded : incomplete;
  }
  complain(demo::headline(run) + (run.verdict ? " Verdict: " + demo::verdict_text(run) : ""));
  if (const std::string hint = demo::hint(run); !hint.empty()) complain(hint);
  return run.verdict ? failed : interrupted;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    demo::DemoOptions options = demo::parse_options({argv + 1, argv + argc});
    if (!options.help && !options.version) return run_demo(options);
    std::fputs(options.help ? demo::usage : "vision-demo " DEMO_VERSION "\n", stdout);
    return succeeded;
  } catch (const std::exception& error) {
    complain(error.what());
    return not_started;
  }
}
