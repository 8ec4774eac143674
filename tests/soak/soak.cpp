// Callers of every mode against a model server that misbehaves, round after round. After
// each round everything has ended, and the process holds what it held before; in between,
// an event loop is destroyed with all its callers under way.
#include <malloc.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/parse.hpp>
#include <cstdio>
#include <thread>

#include "tests/soak/fast_time.hpp"
#include "tests/soak/lane.hpp"
#include "tests/soak/model_server.hpp"
#include "tests/support/environment.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/runtime/internal/duration.hpp"
#include "vision/runtime/internal/worker.hpp"
#include "vision/wirein/losses.hpp"

namespace vision::soak {
namespace {

namespace fs = std::filesystem;
constexpr int speed = 20;
constexpr std::uint64_t warm_up_rounds = 3;
constexpr long kept_connections = 32;
// For the buffers of kept connections, and what the allocator does not return.
constexpr long heap_slack_kb = 256, resident_slack_kb = 2048;

struct Settings {
  double seconds;
  std::uint64_t rounds, callers, threads, seed;
};

/// An event loop with threads of its own, in fast time.
class Loop {
 public:
  explicit Loop(std::uint64_t threads) {
    runtime::install_time_source(io, time);
    for (std::uint64_t i = 0; i < threads; ++i) threads_.emplace_back([this] { io.run(); });
  }
  /// Destroys whatever is still under way.
  ~Loop() {
    io.stop();
    for (auto& thread : threads_) thread.join();
  }

  const std::shared_ptr<FastTime> time = std::make_shared<FastTime>(speed);
  asio::io_context io;

 private:
  asio::executor_work_guard<asio::io_context::executor_type> work_{io.get_executor()};
  std::vector<std::thread> threads_;
};

/// What a process can leak.
struct Held {
  Held() {
    ::malloc_trim(0);
    const struct mallinfo2 heap = ::mallinfo2();
    heap_kb = static_cast<long>((heap.uordblks + heap.hblkhd) >> 10);
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    resident_kb = pages * (::sysconf(_SC_PAGESIZE) >> 10);
    std::error_code gone;  // the descriptor of the directory itself
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      const bool is_socket = fs::read_symlink(entry, gone).string().starts_with("socket:");
      ++(is_socket ? sockets : descriptors);
    }
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) threads += entry.is_directory() ? 1 : 0;
  }
  long heap_kb = 0, resident_kb = 0, descriptors = 0, sockets = 0, threads = 0;
};

class Soak {
 public:
  Soak(const Settings& settings, const std::string& url)
      : settings_(settings),
        loop_(settings.threads),
        model_(std::make_shared<HttpMessagesClient>("sk-soak-0123456789", HttpOptions().base_url(url))),
        unreachable_(
            std::make_shared<HttpMessagesClient>("sk-soak-0123456789", HttpOptions().base_url("http://127.0.0.1:1"))) {}

  bool run() {
    auto& time = runtime::time_source(asio::system_executor());
    const auto begin = time.steady_now();
    for (std::uint64_t round = 0; round < settings_.rounds || seconds < settings_.seconds; ++round) {
      run_to_the_end();
      check_log(true);
      destroy_in_the_middle();
      check_log(false);
      seconds = runtime::to_seconds(time.steady_now() - begin);
      compare(round);
    }
    return is_good_;
  }

  double seconds = 0;

 private:
  void launch(asio::io_context& io) {
    tally_.lanes = tally_.callers = tally_.records = 0;
    for (std::uint64_t i = 0; i < lanes_; ++i) {
      const std::uint64_t number = settings_.seed * 1'000'003 + launched_++;
      const asio::any_io_executor strand = asio::make_strand(io.get_executor());
      start_lane(strand, number % 16 == 0 ? unreachable_ : model_, number, tally_);
    }
  }

  void wait_for(std::size_t lanes) {
    std::unique_lock lock(tally_.mutex);
    tally_.changed.wait(lock, [&] { return tally_.lanes >= lanes; });
  }

  void run_to_the_end() {
    launch(loop_.io);
    wait_for(lanes_);
    expect(tally_.callers == lanes_ * lane_size, "callers have not ended");
    finish_worker();
    expect(loop_.time->pending() == 0, std::to_string(loop_.time->pending()) + " waits are left");
    expect(runtime::jobs_in_flight(loop_.io) == 0, "jobs are left");
  }

  void destroy_in_the_middle() {
    auto doomed = std::make_unique<Loop>(settings_.threads);
    const auto time = doomed->time;
    launch(doomed->io);
    wait_for(launched_ * 7919 % lanes_);
    doomed.reset();
    expect(tally_.lanes == lanes_, "lanes outlive the event loop");
    expect(time->pending() == 0, "waits outlive the event loop");
    finish_worker();
  }

  // Jobs that are no longer waited for are still to be done, and at first there may be
  // too many of them for one more.
  void finish_worker() {
    for (bool done = false; !done;) {
      try {
        asio::co_spawn(asio::make_strand(loop_.io), runtime::run_on_worker([] {}), asio::use_future).get();
        done = true;
      } catch (const std::runtime_error&) {
        std::this_thread::yield();
      }
    }
  }

  // A caller whose event loop was destroyed may have written its record just before.
  void check_log(bool all_ended) {
    std::size_t found = 0;
    for (const std::string& line : test::read_lines("logs/vision_shadow.jsonl")) {
      if (line.empty()) continue;  // left by a writer that met another in the middle of a line; readers skip it
      boost::system::error_code error;
      const auto record = boost::json::parse(line, error);
      expect(!error, "a line is not a record: " + line);
      const auto* members = record.if_object();
      found += members && (members->contains("final") || !members->contains("step")) ? 1 : 0;
    }
    expect(all_ended ? found == tally_.records : found >= tally_.records,
           std::to_string(found) + " records where " + std::to_string(tally_.records) + " are due");
    expect(shadow_log_losses() == 0, "records were lost");
    for (const std::string& breach : std::exchange(tally_.breaches, {})) expect(false, breach);
    records_ += found;
    fs::remove_all("logs");
    fs::remove_all("tests");
  }

  void compare(std::uint64_t round) {
    const Held now;
    std::printf(
        "%7.0f s %10lu callers %10lu records  heap %6ld kB  resident %6ld kB  %3ld descriptors  %3ld sockets  "
        "%2ld threads\n",
        seconds, launched_ * lane_size, records_, now.heap_kb, now.resident_kb, now.descriptors, now.sockets,
        now.threads);
    std::fflush(stdout);
    if (round < warm_up_rounds) {
      first_ = now;
      return;
    }
    expect(now.descriptors == first_.descriptors, "descriptors were left, or closed");
    expect(now.sockets <= first_.sockets + kept_connections, "sockets were left");
    expect(now.threads == first_.threads, "threads were left, or ended");
    expect(now.heap_kb <= first_.heap_kb + first_.heap_kb / 50 + heap_slack_kb, "the heap has grown");
    const bool is_sanitized = now.heap_kb == 0;  // its allocator keeps what was freed
    expect(is_sanitized || now.resident_kb <= first_.resident_kb + first_.resident_kb / 50 + resident_slack_kb,
           "the memory has grown");
  }

  void expect(bool condition, const std::string& breach) {
    if (condition) return;
    std::printf("soak: %s (seed %lu)\n", breach.c_str(), settings_.seed);
    is_good_ = false;
  }

  const Settings settings_;
  const std::size_t lanes_ = settings_.callers / lane_size;
  Tally tally_;
  Loop loop_;
  const std::shared_ptr<MessagesClient> model_, unreachable_;
  std::uint64_t launched_ = 0, records_ = 0;
  Held first_;
  bool is_good_ = true;
};

Settings read_settings(int argc, char** argv) {
  const auto number = [&](int i) { return i < argc ? std::stoull(argv[i]) : 1; };
  const Settings settings{argc > 1 ? std::stod(argv[1]) : 0, number(2), number(3), number(4), number(5)};
  const bool ends = settings.seconds > 0 || settings.rounds > 0;
  if (argc >= 5 && ends && settings.callers >= lane_size && settings.threads > 0) return settings;
  throw std::invalid_argument(
      "usage: soak SECONDS ROUNDS CALLERS THREADS [SEED]; it runs for both, whichever takes longer");
}

}  // namespace
}  // namespace vision::soak

int main(int argc, char** argv) {
  using namespace vision;
  try {
    const soak::Settings settings = soak::read_settings(argc, argv);
    rlimit descriptors{};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    const test::ScratchDirectory scratch;
    const soak::ModelServer server(static_cast<unsigned>(settings.seed));
    const test::ScopedEnv log("KX_VISION_SHADOW_LOG", std::nullopt), fixtures("KX_VISION_FIXTURE_AUTO", "1");
    const test::ScopedEnv timeout("KX_VISION_TIMEOUT_S", std::nullopt), proxy("no_proxy", "*");
    set_model_registry(std::make_shared<StaticModelRegistry>("light", "heavy"));
    spdlog::null_logger_mt("vision")->set_level(spdlog::level::debug);
    return soak::Soak(settings, server.url).run() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 2;
  }
}
