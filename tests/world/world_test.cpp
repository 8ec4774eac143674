#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/world/invariants.hpp"
#include "vision/settings/model_registry.hpp"

namespace vision::world {
namespace {

const char* const log_path = "logs/shadow.jsonl";
const char* const fixture_folder = "tests";

/// A run is its scenario, its seed and its faults.
struct Run {
  const Scenario* scenario = nullptr;  ///< null for a world of several missions
  std::uint64_t seed = 0;
  Plan plan;
  std::optional<std::size_t> cancel_turn = {};

  std::string replay_line() const {
    return "world_test --replay scenario=" + (scenario ? scenario->full_name() : std::string("random")) +
           " seed=" + std::to_string(seed) + (scenario ? " fault=" + to_text(plan) : "") +
           (cancel_turn ? " cancel_turn=" + std::to_string(*cancel_turn) : "");
  }
};

struct Report {
  std::size_t turns = 0;
  std::vector<SeamKind> seams;
  std::uint64_t hash = 0;
  std::vector<std::string> violations;
};

void clear_folder(bool fixtures) {
  std::filesystem::remove(log_path);
  std::filesystem::remove("logs");
  if (fixtures) std::filesystem::remove_all(fixture_folder);
}

// Several missions on one client with a small budget, begun one after the other.
void populate(World& world, Host*& host, std::unique_ptr<Host>& owned, bool& fixtures) {
  fixtures = world.random(4) == 0;
  owned = std::make_unique<Host>(world, static_cast<std::int64_t>(1 + world.random(8)), world.random(4) != 0);
  host = owned.get();
  const auto& all = scenarios();
  const std::uint64_t count = 2 + world.random(4);
  for (std::uint64_t i = 0; i < count; ++i) {
    const Scenario& scenario = all[world.random(all.size())];
    world.missions.push_back(std::make_unique<Mission>("m" + std::to_string(i), scenario));
  }
}

void check_fixtures(World& world, Report& report) {
  if (!std::filesystem::exists(fixture_folder)) return;
  int partial = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(fixture_folder)) {
    if (!entry.is_regular_file()) continue;
    if (entry.path().extension() == ".png") {
      if (!test::read_file(entry.path()).starts_with("PNG of m")) report.violations.push_back("10. half a fixture");
    } else {
      ++partial;
    }
  }
  if (partial > world.faulty_removals) report.violations.push_back("10. a partial fixture was left behind");
}

Report perform(const Run& run, bool prints_trace = false) {
  Conditions conditions;
  conditions.seed = run.seed;
  conditions.plan = run.plan;
  conditions.cancel_turn = run.cancel_turn;
  conditions.faults_per_mille = run.scenario ? 0 : 20;
  conditions.prints_trace = prints_trace;
  Report report;
  World world(conditions);
  std::unique_ptr<Host> owned;
  Host* host = nullptr;
  bool fixtures = false;
  if (run.scenario) {
    fixtures = run.scenario->fixtures;
    owned = std::make_unique<Host>(world, run.scenario->budget, run.scenario->hook);
    host = owned.get();
    world.missions.push_back(std::make_unique<Mission>("m0", *run.scenario));
  } else {
    populate(world, host, owned, fixtures);
  }
  clear_folder(fixtures);
  const test::ScopedEnv harvest("KX_VISION_FIXTURE_AUTO", fixtures ? "1" : "0");
  for (auto& mission : world.missions) {
    if (run.scenario) {
      start(world, *mission, *host);
    } else {
      world.time->at(world.latency(), [&world, &mission = *mission, host] { start(world, mission, *host); });
    }
  }
  world.run();
  check(world, *host, test::read_lines(log_path));
  if (fixtures) check_fixtures(world, report);
  report.seams = world.seams;
  report.turns = world.turns;
  report.hash = world.hash;
  report.violations.insert(report.violations.end(), world.violations.begin(), world.violations.end());
  return report;
}

struct Stopped {};

class Campaign {
 public:
  explicit Campaign(bool stops_at_first) : stops_at_first_(stops_at_first) {}

  // Runs it; every eighth run twice, which must not differ.
  Report take(const Run& run) {
    Report report = perform(run);
    ++runs_;
    if (runs_ % 8 == 0 && perform(run).hash != report.hash)
      report.violations.push_back("the same run went another way");
    if (!report.violations.empty()) {
      ++failures_;
      const bool is_new =
          0 < std::count_if(report.violations.begin(), report.violations.end(), [&](const auto& violation) {
            return ++messages_[violation.substr(0, violation.find(" (m"))] == 1;
          });
      if (is_new && failures_ <= 100) {
        std::cout << run.replay_line() << "\n";
        for (const auto& violation : report.violations) std::cout << "  " << violation << "\n";
      }
      if (stops_at_first_) throw Stopped();
    }
    return report;
  }

  void singles() {
    for (const Scenario& scenario : scenarios()) {
      for (const std::uint64_t seed : {0U, 1U, 2U, 3U}) {
        const Report clean = take({&scenario, seed, {}});
        if (seed == 0) seams_ += clean.seams.size();
        for (std::size_t turn = 0; seed < 2 && turn < clean.turns; ++turn) take({&scenario, seed, {}, turn});
        for (std::size_t i = 0; i < clean.seams.size(); ++i) {
          for (const Fault fault : faults_of(clean.seams[i])) take({&scenario, seed, {{static_cast<int>(i), fault}}});
        }
      }
    }
  }

  // Every pair of seams that a run passes, the second counted under the first's
  // fault; the kinds of fault go round.
  void pairs(int rounds) {
    for (const Scenario& scenario : scenarios()) {
      const Report clean = perform({&scenario, 0, {}});
      seams_ += clean.seams.size();
      for (std::size_t i = 0; i < clean.seams.size(); ++i) {
        for (int round = 0; round < rounds; ++round) {
          const auto first_kinds = faults_of(clean.seams[i]);
          const std::size_t turn = i * 7 + static_cast<std::size_t>(round) * 5;
          const Fault first = first_kinds[turn % first_kinds.size()];
          const Plan one = {{static_cast<int>(i), first}};
          const auto seams = perform({&scenario, 0, one}).seams;
          for (std::size_t j = i + 1; j < seams.size(); ++j) {
            const auto kinds = faults_of(seams[j]);
            Plan two = one;
            two[static_cast<int>(j)] = kinds[(turn + j * 3) % kinds.size()];
            take({&scenario, 0, two});
          }
        }
      }
    }
  }

  void random(std::uint64_t count, std::uint64_t first_seed) {
    for (std::uint64_t seed = first_seed; seed < first_seed + count; ++seed) {
      seams_ += take({nullptr, seed, {}}).seams.size();
    }
  }

  int finish(std::string_view what) const {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    std::cout << what << ": " << scenarios().size() << " scenarios, " << seams_ << " seams, " << runs_ << " runs, "
              << failures_ << " failures, " << seconds << " s\n";
    for (const auto& [message, count] : messages_) std::cout << count << " times: " << message << "\n";
    return failures_ == 0 ? 0 : 1;
  }

 private:
  bool stops_at_first_;
  std::map<std::string, int> messages_;
  std::size_t runs_ = 0, failures_ = 0, seams_ = 0;
  std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

Run run_from(const std::vector<std::string>& words) {
  Run run;
  for (const auto& word : words) {
    const auto equals = word.find('=');
    const std::string key = word.substr(0, equals), value = word.substr(equals + 1);
    if (key == "seed") run.seed = std::stoull(value);
    if (key == "cancel_turn") run.cancel_turn = std::stoull(value);
    if (key == "fault") run.plan = plan_from(value);
    if (key != "scenario" || value == "random") continue;
    for (const Scenario& scenario : scenarios())
      if (scenario.full_name() == value) run.scenario = &scenario;
    if (!run.scenario) throw std::invalid_argument("no scenario is named \"" + value + "\"");
  }
  return run;
}

int replay(const Run& run) {
  const Report report = perform(run, true);
  for (const auto& violation : report.violations) std::cout << violation << "\n";
  std::cout << "trace " << std::hex << report.hash << "\n";
  return report.violations.empty() ? 0 : 1;
}

int usage() {
  std::cerr << "usage: world_test single | pairs [ROUNDS] | random [COUNT [FIRST_SEED]], and --first to stop early\n"
               "       world_test --replay scenario=MODE/NAME seed=N fault=seamN:FAULT[,...] [cancel_turn=N]\n";
  return 2;
}

int run(std::vector<std::string> words) {
  set_model_registry(std::make_shared<StaticModelRegistry>("light-model", "heavy-model"));
  const test::LogCapture log(spdlog::level::off);
  if (std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 0);  // in memory: ten times as fast
  const test::ScratchDirectory directory;
  const test::ScopedEnv path("KX_VISION_SHADOW_LOG", log_path);
  if (words.empty()) return usage();
  const auto number = [&](std::size_t place, std::uint64_t fallback) {
    return words.size() > place ? std::stoull(words[place]) : fallback;
  };
  if (words[0] == "--replay") return replay(run_from({words.begin() + 1, words.end()}));
  const bool stops_at_first = words.back() == "--first";
  if (stops_at_first) words.pop_back();
  Campaign campaign(stops_at_first);
  try {
    if (words[0] == "single") {
      campaign.singles();
    } else if (words[0] == "pairs") {
      campaign.pairs(static_cast<int>(number(1, 1)));
    } else if (words[0] == "random") {
      campaign.random(number(1, 400), number(2, 1000));
    } else {
      return usage();
    }
  } catch (const Stopped&) {
  }
  return campaign.finish(words[0]);
}

}  // namespace
}  // namespace vision::world

int main(int argc, char** argv) {
  try {
    return vision::world::run({argv + 1, argv + argc});
  } catch (const std::exception& e) {
    std::cerr << "world_test: " << e.what() << "\n";
    return 2;
  }
}
