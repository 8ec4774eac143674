#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>

#include "examples/demo/console.hpp"
#include "examples/demo/mission_run.hpp"
#include "examples/demo/options.hpp"
#include "examples/demo/report.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;

constexpr int succeeded = 0, failed = 1, wrong_call = 2, interrupted = 130;

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void complain(const std::string& line) {
  std::fprintf(stderr, "vision-demo: %s\n", line.c_str());
}

// Sends everything that the mission writes below `out`, which becomes the current
// directory; gives its full path.
fs::path settle_in(const fs::path& out, bool local) {
  const fs::path full = fs::absolute(out).lexically_normal();
  fs::create_directories(full);
  const char* log = std::getenv("KX_VISION_SHADOW_LOG");
  const fs::path log_path = log != nullptr && *log != '\0' ? fs::absolute(log) : full / "vision_shadow.jsonl";
  setenv("KX_VISION_SHADOW_LOG", log_path.c_str(), 1);
  setenv("KX_VISION_FIXTURE_AUTO", "1", 0);
  if (local) setenv("no_proxy", "127.0.0.1", 1);
  fs::current_path(full);
  return full;
}

void write_report(const fs::path& path, const demo::MissionEnd& end, const demo::ModelChoice& model) {
  demo::ReportSummary summary{
      "Pinwall: share a board", model.light, end.verdict, end.expected, end.right(), end.metrics};
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << demo::render_report(end.steps, summary);
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

// The library's own log lines: any logger of this name receives them.
void log_to(const fs::path& path) {
  spdlog::basic_logger_mt("vision", path.string(), true);
}

// The mission's end; absent when a signal came first.
std::optional<demo::MissionEnd> run(const demo::DemoOptions& options, const demo::ModelChoice& model,
                                    const std::string& run_id) {
  asio::io_context loop;
  asio::cancellation_signal cancel;
  asio::signal_set signals(loop, SIGINT, SIGTERM);
  bool stopped = false;
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    stopped = true;
    complain("interrupted, ending the browser");
    cancel.emit(asio::cancellation_type::terminal);
  });

  std::optional<demo::MissionEnd> end;
  std::exception_ptr failure;
  const demo::OnStep on_step = [](std::size_t number, const vision::ActionResult& proposal) {
    say(demo::step_line(number, proposal));
  };
  auto mission = [&]() -> asio::awaitable<void> { end = co_await demo::run_mission(options, model, run_id, on_step); };
  asio::co_spawn(loop, mission, asio::bind_cancellation_slot(cancel.slot(), [&](std::exception_ptr error) {
                   failure = error;
                   signals.cancel();
                 }));
  loop.run();
  if (stopped) return std::nullopt;
  if (failure) std::rethrow_exception(failure);
  return end;
}

int run_demo(const demo::DemoOptions& options) {
  const demo::ModelChoice model = demo::choose_model(options, [](const char* name) { return std::getenv(name); });
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(model.light, model.heavy));
  const fs::path out = settle_in(options.out, model.local);
  log_to(out / "vision.log");
  say(std::string("model           ") + (model.local ? "local: character recognition that follows numbered instructions"
                                                     : "hosted: " + model.light + ", heavy " + model.heavy));
  say("viewport        " + std::to_string(options.width) + " x " + std::to_string(options.height) +
      ", device pixel ratio " + vision::text::shortest(options.dpr) + "\n");

  const auto end = run(options, model, "demo-" + std::to_string(std::time(nullptr)));
  if (!end) return interrupted;
  write_report(out / "report.html", *end, model);
  say("\n" + demo::summary_text(*end, model) + "report          " + (out / "report.html").string() + "\n" +
      "library's log   " + (out / "vision.log").string() + "\n" + "shadow log      " + vision::_shadow_log_path() +
      "\n" + "screenshots     " + (out / "tests/fixtures/vision/auto" / demo::hotspot_id).string());
  const std::string why = demo::failure_sentence(*end);
  if (why.empty()) {
    say("\nThe mission succeeded, and the application says the same.");
    return succeeded;
  }
  complain(why);
  return failed;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const demo::DemoOptions options = demo::parse_options({argv + 1, argv + argc});
    if (!options.help) return run_demo(options);
    std::fputs(demo::usage, stdout);
    return succeeded;
  } catch (const demo::UsageError& error) {
    complain(error.what());
    return wrong_call;
  } catch (const std::exception& error) {
    complain(error.what());
    return failed;
  }
}
