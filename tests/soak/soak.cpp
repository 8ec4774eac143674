// Missions of every mode against a model server that misbehaves, round after round.
// After each round everything has ended, and the process holds what it held before;
// in between an event loop is destroyed with all its missions under way.
#include <malloc.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/parse.hpp>
#include <cstdio>
#include <map>
#include <thread>

#include "tests/soak/fast_time.hpp"
#include "tests/soak/lane.hpp"
#include "tests/soak/model_server.hpp"
#include "tests/support/environment.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/runtime/internal/worker.hpp"
#include "vision/wirein/losses.hpp"

namespace vision::soak {
namespace {

namespace fs = std::filesystem;
constexpr int speed = 20;
constexpr std::uint64_t warm_up_rounds = 3;
constexpr long kept_connections = 32;
// The buffers of kept connections, and what the allocator does not give back.
constexpr long heap_slack_kb = 256, resident_slack_kb = 2048;

struct Settings {
  double seconds;
  std::uint64_t rounds, missions, threads, seed;
};

/// An event loop of its own threads, in fast time.
class Loop {
 public:
  explicit Loop(std::uint64_t threads) {
    runtime::install_time_source(io, time);
    for (std::uint64_t i = 0; i < threads; ++i) threads_.emplace_back([this] { io.run(); });
  }
  /// Whatever is still under way goes with the event loop.
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
    std::error_code gone;  // the directory's own, for one
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      const bool is_socket = fs::read_symlink(entry, gone).string().starts_with("socket:");
      ++(is_socket ? sockets : descriptors);
    }
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) threads += entry.is_directory() ? 1 : 0;
  }
  long heap_kb = 0, resident_kb = 0, descriptors = 0, sockets = 0, threads = 0;
};

/// The records of one mission.
struct Records {
  int steps = 0, finals = 0, observations = 0;
  bool timed_out = false;  ///< screenshot and question together: an answer may have been under way
};

class Soak {
 public:
  Soak(const Settings& settings, const std::string& url)
      : settings_(settings),
        loop_(settings.threads),
        model_(std::make_shared<HttpMessagesClient>("sk-soak-0123456789", HttpOptions().base_url(url))),
        nobody_(
            std::make_shared<HttpMessagesClient>("sk-soak-0123456789", HttpOptions().base_url("http://127.0.0.1:1"))) {}

  bool run() {
    auto& time = runtime::time_source(asio::system_executor());
    const auto begin = time.steady_now();
    for (std::uint64_t round = 0; round < settings_.rounds || seconds < settings_.seconds; ++round) {
      run_to_the_end();
      destroy_in_the_middle();
      check_and_forget();
      seconds = runtime::to_seconds(time.steady_now() - begin);
      compare(round);
    }
    return is_good_;
  }

  double seconds = 0;

 private:
  void launch(asio::io_context& io) {
    for (std::uint64_t i = 0; i < settings_.missions / lane_size; ++i) {
      const std::uint64_t number = settings_.seed * 1'000'003 + launched_++;
      const asio::any_io_executor strand = asio::make_strand(io.get_executor());
      start_lane(strand, number % 16 == 0 ? nobody_ : model_, number, reports_);
    }
  }

  void wait_for(std::size_t lanes) {
    std::unique_lock lock(reports_.mutex);
    reports_.changed.wait(lock, [&] { return reports_.lanes.size() >= lanes; });
  }

  void run_to_the_end() {
    launch(loop_.io);
    wait_for(settings_.missions / lane_size);
    for (const LaneReport& lane : reports_.lanes) {
      for (const Ended& mission : lane.missions) expect(mission.end != End::none, mission.id + " did not end");
    }
    finish_worker();
    expect(loop_.time->pending() == 0, std::to_string(loop_.time->pending()) + " waits are left");
    expect(runtime::jobs_in_flight(loop_.io) == 0, "jobs are left");
  }

  void destroy_in_the_middle() {
    const std::size_t before = reports_.lanes.size(), lanes = settings_.missions / lane_size;
    auto doomed = std::make_unique<Loop>(settings_.threads);
    const auto time = doomed->time;
    launch(doomed->io);
    wait_for(before + launched_ * 7919 % lanes);
    doomed.reset();
    expect(reports_.lanes.size() == before + lanes, "lanes outlive the event loop");
    expect(time->pending() == 0, "waits outlive the event loop");
  }

  // Jobs that nobody waits for any more are still to be done, and at first there
  // may be too many of them for one more.
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

  void check_and_forget() {
    finish_worker();
    std::map<std::string, Records> records;
    for (const std::string& line : test::read_lines("logs/vision_shadow.jsonl")) {
      if (line.empty()) continue;  // written by one who met another in the middle of a line; readers skip it
      boost::system::error_code error;
      const auto parsed = boost::json::parse(line, error);
      expect(!error, "a line is no record: " + line);
      if (error) continue;
      const auto& record = parsed.as_object();
      Records& of_mission = records[std::string(record.at("run_id").as_string())];
      of_mission.timed_out |= line.find(R"("timeout": true)") != line.npos || line.find("hung?") != line.npos;
      const bool is_step = record.contains("source") && record.at("source") == "act";
      ++(!is_step ? of_mission.observations : record.contains("final") ? of_mission.finals : of_mission.steps);
      ++records_;
    }
    for (const LaneReport& lane : reports_.lanes) check(lane, records);
    expect(shadow_log_losses() == 0, "records were lost");
    missions_ += reports_.lanes.size() * lane_size;
    reports_.lanes = {};
    fs::remove_all("logs");
    fs::remove_all("tests");
  }

  void check(const LaneReport& lane, std::map<std::string, Records>& records) {
    std::int64_t calls = 0, unfinished = 0;
    for (const Ended& mission : lane.missions) {
      check(mission, records[mission.id]);
      unfinished += mission.end == End::none || mission.end == End::cancelled || records[mission.id].timed_out;
    }
    for (const auto& [model, count] : lane.ledger.by_model) calls += count;
    // An answer that nobody waits for any more counts nowhere.
    const bool is_right = calls <= lane.requests && calls + unfinished >= lane.answers;
    expect(is_right && calls == lane.ledger.call_count && calls == std::ssize(lane.ledger.latencies_ms),
           lane.missions.front().id + "'s client has another number of calls in its ledger");
  }

  void check(const Ended& mission, const Records& records) {
    const std::string who = mission.id + " (mode " + std::to_string(static_cast<int>(mission.mode)) + ")";
    expect(mission.end != End::other, who + " ended with " + mission.error);
    const bool is_act = mission.mode == Mode::act_loop, has_record = mission.mode != Mode::fallback;
    expect(is_act || records.steps + records.finals == 0, who + " has records of an act loop");
    if (mission.end == End::none) return;  // with or without, as far as it came
    const bool ended = mission.end != End::cancelled;
    expect(records.finals == (is_act && ended ? 1 : 0),
           who + " has " + std::to_string(records.finals) + " final records");
    expect(records.observations == (!is_act && has_record && ended ? 1 : 0),
           who + " has " + std::to_string(records.observations) + " records");
  }

  void compare(std::uint64_t round) {
    const Held now;
    std::printf(
        "%7.0f s %10lu missions %10lu records  heap %6ld kB  resident %6ld kB  %3ld descriptors  %3ld sockets  "
        "%2ld threads\n",
        seconds, missions_, records_, now.heap_kb, now.resident_kb, now.descriptors, now.sockets, now.threads);
    std::fflush(stdout);
    if (round < warm_up_rounds) {
      first_ = now;
      return;
    }
    expect(now.descriptors == first_.descriptors, "descriptors were left, or closed");
    expect(now.sockets <= first_.sockets + kept_connections, "sockets were left");
    expect(now.threads == first_.threads, "threads were left, or ended");
    expect(now.heap_kb <= first_.heap_kb + first_.heap_kb / 50 + heap_slack_kb, "the heap has grown");
    const bool is_sanitized = now.heap_kb == 0;  // has an allocator of its own, which keeps what was freed
    expect(is_sanitized || now.resident_kb <= first_.resident_kb + first_.resident_kb / 50 + resident_slack_kb,
           "the memory has grown");
  }

  void expect(bool condition, const std::string& breach) {
    if (condition) return;
    std::printf("soak: %s (seed %lu)\n", breach.c_str(), settings_.seed);
    is_good_ = false;
  }

  const Settings settings_;
  Reports reports_;
  Loop loop_;
  const std::shared_ptr<MessagesClient> model_, nobody_;
  std::uint64_t launched_ = 0, missions_ = 0, records_ = 0;
  Held first_;
  bool is_good_ = true;
};

Settings read_settings(int argc, char** argv) {
  const auto number = [&](int i) { return i < argc ? std::stoull(argv[i]) : 1; };
  const Settings settings{argc > 1 ? std::stod(argv[1]) : 0, number(2), number(3), number(4), number(5)};
  const bool ends = settings.seconds > 0 || settings.rounds > 0;
  if (argc >= 5 && ends && settings.missions >= lane_size && settings.threads > 0) return settings;
  throw std::invalid_argument(
      "usage: soak SECONDS ROUNDS MISSIONS THREADS [SEED]; it runs for both, whichever takes longer");
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
