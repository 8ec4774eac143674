// Appends records to one shadow log from many processes at once, some of which are
// killed, and counts what became of them:
//   append_race PROCESSES RECORDS ROUNDS
// Works in the current directory, so that it can be run on any file system. Exits with 1
// when a line is torn or a record lost that should be there.

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <boost/json/parse.hpp>
#include <iostream>
#include <map>
#include <random>

#include "tests/support/environment.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace {

constexpr const char* log_name = "append_race.jsonl";
constexpr std::size_t max_writers = 64;

// Shared by all processes: how many of its records each writer knows to be written, and
// whether to stop.
struct Shared {
  std::array<std::atomic<std::int64_t>, max_writers> done;
  std::atomic<bool> stop;
};

Shared& shared() {
  static auto* const memory =
      static_cast<Shared*>(::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *memory;
}

void append(std::size_t writer, std::int64_t number, std::size_t size) {
  vision::_append_shadow_record({{"p", writer}, {"i", number}, {"pad", std::string(size, 'x')}});
  shared().done[writer] = number + 1;
}

pid_t start_writer(std::size_t writer, std::int64_t records, std::size_t size) {
  shared().done[writer] = 0;
  const pid_t child = ::fork();
  if (child != 0) return child;
  std::minstd_rand random(static_cast<unsigned>(writer + 1));
  for (std::int64_t i = 0; i < records && !shared().stop; ++i) append(writer, i, size ? size : 100 + random() % 750);
  ::_exit(static_cast<int>(vision::shadow_log_losses() != 0));
}

void wait_for(std::size_t writer, std::int64_t count) {
  while (shared().done[writer] < count) ::sched_yield();
}

struct Sum {
  std::int64_t kills = 0, records = 0, torn = 0, spoiled = 0, failed = 0;
};

// Counts the lines that are not records, and the finished records that are not there
// exactly once.
void count(std::size_t writers, Sum& sum) {
  std::map<std::size_t, std::map<std::int64_t, int>> found;
  std::ifstream in(log_name);
  for (std::string line; std::getline(in, line);) {
    boost::system::error_code error;
    const auto record = boost::json::parse(line, error);
    if (!error) ++found[record.at("p").to_number<std::size_t>()][record.at("i").to_number<std::int64_t>()];
    if (error && !line.empty()) ++sum.torn;
  }
  for (std::size_t w = 0; w < writers; ++w) {
    const std::int64_t done = shared().done[w];
    sum.records += done;
    for (std::int64_t i = 0; i < done; ++i) sum.spoiled += found[w][i] != 1;
  }
}

// The first `victims` of the writers are killed, each followed by a new one.
void race(std::size_t writers, std::size_t victims, std::int64_t records, std::size_t size, Sum& sum) {
  static std::minstd_rand random(7);
  std::filesystem::remove(log_name);
  shared().stop = false;
  std::vector<pid_t> ids;
  for (std::size_t w = 0; w < writers; ++w) ids.push_back(start_writer(w, records, size));
  for (std::size_t w = 0; w < victims; ++w) {
    wait_for(w, 1 + static_cast<std::int64_t>(random() % 40));
    ::kill(ids[w], SIGKILL);
    ::waitpid(ids[w], nullptr, 0);
    append(writers + w, 0, size);
  }
  for (std::size_t w = victims; victims != 0 && w < writers; ++w) wait_for(w, shared().done[w] + 3);
  shared().stop = victims != 0;
  for (int status = 0; ::wait(&status) > 0;) sum.failed += status != 0;
  sum.kills += static_cast<std::int64_t>(victims);
  count(writers + victims, sum);
}

bool report(const char* what, const Sum& sum) {
  std::cout << what << ": " << sum.kills << " writers killed, " << sum.records << " records finished, " << sum.spoiled
            << " of them spoiled, " << sum.torn << " lines cut\n";
  return sum.spoiled == 0 && sum.failed == 0 && sum.torn <= sum.kills;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: append_race PROCESSES RECORDS ROUNDS\n";
    return 2;
  }
  ::setenv("KX_VISION_SHADOW_LOG", log_name, 1);
  constexpr std::int64_t endless = 1'000'000'000;
  Sum together, killed;
  race(std::min<std::size_t>(std::stoul(argv[1]), max_writers), 0, std::stoll(argv[2]), 0, together);
  for (int round = std::stoi(argv[3]); round > 0; --round) {
    for (const std::size_t size : {600U, 60'000U}) race(4, 2, endless, size, killed);
  }
  std::filesystem::remove(log_name);
  const bool good = report("together", together);
  return report("killed at random", killed) && good ? 0 : 1;
}
