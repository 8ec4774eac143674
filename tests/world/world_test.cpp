#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/world/caller.hpp"

namespace vision::world {
namespace {

const char* const log_path = "logs/shadow.jsonl";
const char* const fixture_folder = "tests";

void check_fixtures(World& world) {
  if (!std::filesystem::exists(fixture_folder)) return;
  int partial = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(fixture_folder)) {
    if (!entry.is_regular_file()) continue;
    const bool is_whole = entry.path().extension() == ".png";
    if (!is_whole) ++partial;
    world.expect(!is_whole || test::read_file(entry.path()) == "PNG", "10. half a fixture");
  }
  world.expect(partial <= world.faulty_removals, "10. a partial fixture was left behind");
}

// One caller; without a scenario, several that start one after the other on one client
// with a small budget.
Report play(const Run& run) {
  World world(run);
  const bool is_random = !run.scenario;
  const bool fixtures = is_random ? world.random(4) == 0 : run.scenario->with.fixtures;
  const auto budget = is_random ? static_cast<std::int64_t>(1 + world.random(8)) : run.scenario->with.budget;
  Host host(world, budget, is_random ? world.random(4) != 0 : run.scenario->with.hook);
  const std::uint64_t count = is_random ? 2 + world.random(4) : 1;
  for (std::uint64_t i = 0; i < count; ++i) {
    const Scenario& scenario = is_random ? scenarios()[world.random(scenarios().size())] : *run.scenario;
    world.callers.push_back(std::make_unique<Caller>(world, "c" + std::to_string(i), scenario));
  }
  std::filesystem::remove(log_path);
  std::filesystem::remove("logs");
  if (fixtures) std::filesystem::remove_all(fixture_folder);
  const test::ScopedEnv harvest("KX_VISION_FIXTURE_AUTO", fixtures ? "1" : "0");
  for (auto& caller : world.callers) {
    if (!is_random) start(*caller, host.client);
    if (is_random) world.time->at(world.latency(), 0, [&, m = caller.get()] { start(*m, host.client); });
  }
  world.run();
  check(world, host, test::read_lines(log_path));
  if (fixtures) check_fixtures(world);
  return world.report;
}

std::string replay_line(const Run& run) {
  return "world_test replay " + (run.scenario ? run.scenario->name : "random") + " " + std::to_string(run.seed) +
         (run.plan.empty() ? "" : " ") + run.plan;
}

const Run* running = nullptr;

// A run that ends the whole program leaves its line, too.
void print_running() {
  if (running) std::cout << replay_line(*running) << std::endl;
}

std::string strike(const char* what, std::size_t number, const Fault& fault) {
  return what + std::to_string(number) + ":" + std::string(fault.name);
}

struct Stopped {};

class Campaign {
 public:
  explicit Campaign(bool stops_at_first) : stops_at_first_(stops_at_first) {}

  // Each seam with each fault, and each turn of the event loop.
  void singles() {
    for (const Scenario& scenario : scenarios()) {
      for (const std::uint64_t seed : {0U, 1U, 2U, 3U}) {
        const Report clean = take({&scenario, seed});
        for (std::size_t turn = 0; seed < 2 && turn < clean.turns; ++turn)
          for (const Fault& fault : faults_at(place::turn)) take({&scenario, seed, strike("turn", turn, fault)});
        for (std::size_t i = 0; i < clean.seams.size(); ++i)
          for (const Fault& fault : faults_at(clean.seams[i])) take({&scenario, seed, strike("seam", i, fault)});
      }
    }
  }

  // Every pair of seams that a run can pass, the second as numbered under the first's
  // fault. A first fault that ends the run early leaves the later seams to the next fault.
  // Most faults of a timer do, so some pairs do not exist.
  void pairs(std::uint64_t rounds) {
    for (const Scenario& scenario : scenarios()) {
      const auto seams = take({&scenario}).seams;
      for (std::uint64_t round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < seams.size(); ++i) pairs_with(scenario, i, seams, i * 7 + round * 11);
    }
  }

  void random(std::uint64_t count, std::uint64_t first_seed) {
    for (std::uint64_t seed = first_seed; seed < first_seed + count; ++seed) take({nullptr, seed});
  }

  int finish(std::string_view what) const {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    std::cout << what << ": " << scenarios().size() << " scenarios, " << seams_ << " seams, " << runs_ << " runs, "
              << failures_ << " failures, " << seconds << " s\n";
    for (const auto& [message, count] : messages_) std::cout << count << " times: " << message << "\n";
    return failures_ == 0 ? 0 : 1;
  }

 private:
  void pairs_with(const Scenario& scenario, std::size_t i, const std::vector<unsigned>& seams, std::size_t offset) {
    const auto faults_here = faults_at(seams[i]);
    std::size_t next = i + 1;
    for (std::size_t k = 0; k < faults_here.size() && next < seams.size(); ++k) {
      const std::string first = strike("seam", i, faults_here[(offset + k) % faults_here.size()]);
      const auto rest = take({&scenario, 0, first}).seams;
      for (; next < rest.size(); ++next) {
        const auto others = faults_at(rest[next]);
        const Fault& second = others[(offset + k + next * 3) % others.size()];
        take({&scenario, 0, first + "," + strike("seam", next, second)});
      }
    }
  }

  // Plays it; every eighth run twice, which must not differ.
  Report take(const Run& run) {
    running = &run;
    Report report = play(run);
    if ((run.seed == 0 || !run.scenario) && run.plan.empty()) seams_ += report.seams.size();
    const bool differs = ++runs_ % 8 == 0 && play(run).hash != report.hash;
    if (differs) report.violations.push_back("the same run went another way");
    running = nullptr;
    if (report.violations.empty()) return report;
    ++failures_;
    const auto is_new = [&](const auto& text) { return ++messages_[text.substr(0, text.find(" (c"))] == 1; };
    if (std::count_if(report.violations.begin(), report.violations.end(), is_new) > 0) {
      std::cout << replay_line(run) << "\n";
      for (const auto& violation : report.violations) std::cout << "  " << violation << "\n";
    }
    if (stops_at_first_) throw Stopped();
    return report;
  }

  bool stops_at_first_;
  std::map<std::string, int> messages_;
  std::size_t runs_ = 0, failures_ = 0, seams_ = 0;
  std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

int replay(const std::string& name, std::uint64_t seed, const std::string& plan) {
  const Scenario* scenario = nullptr;
  for (const Scenario& each : scenarios())
    if (each.name == name) scenario = &each;
  if (!scenario && name != "random") throw std::invalid_argument("no scenario is named \"" + name + "\"");
  const Report report = play({scenario, seed, plan, true});
  for (const auto& violation : report.violations) std::cout << violation << "\n";
  std::cout << "trace " << std::hex << report.hash << "\n";
  return report.violations.empty() ? 0 : 1;
}

int command(std::vector<std::string> words) {
  test::TestRegistry::instance();
  const test::LogCapture log(spdlog::level::off);
  if (std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 0);  // in memory: ten times as fast
  const test::ScratchDirectory directory;
  const test::ScopedEnv path("KX_VISION_SHADOW_LOG", log_path);
  Campaign campaign(std::erase(words, "--first") > 0);
  words.resize(4);
  const auto number = [&](std::size_t i, std::uint64_t fallback) {
    return words[i].empty() ? fallback : std::stoull(words[i]);
  };
  const std::string& what = words[0];
  if (what == "replay") return replay(words[1], number(2, 0), words[3]);
  if (what != "single" && what != "pairs" && what != "random") {
    throw std::invalid_argument(
        "usage: world_test single | pairs [ROUNDS] | random [COUNT [FIRST_SEED]], and --first to stop early\n"
        "       world_test replay SCENARIO SEED [seamN:FAULT,turnN:FAULT...]");
  }
  try {
    if (what == "single") campaign.singles();
    if (what == "pairs") campaign.pairs(number(1, 1));
    if (what == "random") campaign.random(number(1, 400), number(2, 1000));
  } catch (const Stopped&) {
  }
  return campaign.finish(what);
}

}  // namespace
}  // namespace vision::world

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

int main(int argc, char** argv) {
  using namespace vision::world;
  if (__sanitizer_set_death_callback) {
    __sanitizer_set_death_callback(print_running);
  } else {
    for (const int fatal : {SIGSEGV, SIGABRT}) {
      std::signal(fatal, [](int signal) {
        print_running();
        std::signal(signal, SIG_DFL);
        std::raise(signal);
      });
    }
  }
  try {
    return command({argv + 1, argv + argc});
  } catch (const std::exception& e) {
    std::cerr << "world_test: " << e.what() << "\n";
    return 2;
  }
}
