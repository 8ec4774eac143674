// Appends records to one shadow log from many processes at once, some of which are
// killed, and counts what became of them:
//   append_race PROCESSES RECORDS ROUNDS
// Works in the current directory, so that it can be run on any file system. Exits
// with 1 when a line was torn or a record lost that should be there.

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/json/parse.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "vision/wirein/shadow_log.hpp"

namespace {

constexpr const char* log_name = "append_race.jsonl";
constexpr std::size_t max_writers = 64;

// Where each writer is, seen by all processes: how many of its records it has been
// told are written, and whether it is to stop.
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

// What stands in the log: whole records by writer, and lines that are none.
struct Found {
  Found() {
    std::ifstream in(log_name);
    for (std::string line; std::getline(in, line);) {
      boost::system::error_code error;
      const auto record = boost::json::parse(line, error);
      if (error) {
        ++(line.empty() ? empty : torn);
      } else {
        ++records[record.at("p").to_number<std::size_t>()][record.at("i").to_number<std::int64_t>()];
      }
    }
  }
  // Records of the first `count` of a writer that are missing or there twice.
  std::int64_t wrong(std::size_t writer, std::int64_t count) {
    std::int64_t out = 0;
    for (std::int64_t i = 0; i < count; ++i) out += records[writer][i] != 1;
    return out;
  }
  std::map<std::size_t, std::map<std::int64_t, int>> records;
  std::int64_t torn = 0, empty = 0;
};

pid_t start_writer(std::size_t writer, std::int64_t records, std::size_t size) {
  shared().done[writer] = 0;
  const pid_t child = ::fork();
  if (child != 0) return child;
  std::minstd_rand random(static_cast<unsigned>(writer + 1));
  for (std::int64_t i = 0; i < records && !shared().stop; ++i) append(writer, i, size ? size : 100 + random() % 750);
  ::_exit(static_cast<int>(vision::shadow_log_losses() != 0));
}

bool together(std::size_t processes, std::int64_t records) {
  std::filesystem::remove(log_name);
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t p = 0; p < processes; ++p) start_writer(p, records, 0);
  int failed = 0, status = 0;
  while (::wait(&status) > 0) failed += status != 0;
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  Found found;
  std::int64_t lost = 0;
  for (std::size_t p = 0; p < processes; ++p) lost += found.wrong(p, records);
  std::printf("%zu processes, %lld records each: %lld torn, %lld lost, %lld empty lines, %.0f records/s\n", processes,
              static_cast<long long>(records), static_cast<long long>(found.torn), static_cast<long long>(lost),
              static_cast<long long>(found.empty),
              static_cast<double>(processes) * static_cast<double>(records) / seconds.count());
  return found.torn == 0 && lost == 0 && failed == 0;
}

void wait_for(std::size_t writer, std::int64_t count) {
  while (shared().done[writer] < count) ::sched_yield();
}

struct Kills {
  std::int64_t kills = 0, records = 0, cut = 0, spoiled = 0, restarts_spoiled = 0;
};

// Two writers are killed while two go on; each is followed by a new one.
void killing_round(std::size_t size, std::minstd_rand& random, Kills& sum) {
  constexpr std::size_t writers = 4, victims = 2;
  constexpr std::int64_t endless = 1'000'000'000;
  std::filesystem::remove(log_name);
  shared().stop = false;
  std::array<pid_t, writers> ids{};
  for (std::size_t w = 0; w < writers; ++w) ids[w] = start_writer(w, endless, size);
  for (std::size_t w = 0; w < victims; ++w) {
    wait_for(w, 1 + static_cast<std::int64_t>(random() % 40));
    ::kill(ids[w], SIGKILL);
    ::waitpid(ids[w], nullptr, 0);
    append(writers + w, 0, size);
  }
  for (std::size_t w = victims; w < writers; ++w) wait_for(w, shared().done[w] + 3);
  shared().stop = true;
  for (std::size_t w = victims; w < writers; ++w) ::waitpid(ids[w], nullptr, 0);
  Found found;
  sum.kills += victims;
  sum.cut += found.torn;
  for (std::size_t w = 0; w < writers; ++w) {
    sum.records += shared().done[w];
    sum.spoiled += found.wrong(w, shared().done[w]);
  }
  for (std::size_t w = writers; w < writers + victims; ++w) sum.restarts_spoiled += found.wrong(w, 1);
}

bool killed(int rounds) {
  bool good = true;
  std::minstd_rand random(7);
  for (const std::size_t size : {std::size_t{600}, std::size_t{60'000}}) {
    Kills sum;
    for (int round = 0; round < rounds; ++round) killing_round(size, random, sum);
    std::printf(
        "%zu-byte records, %lld writers killed among %lld records: %lld lines cut, %lld finished records spoiled, "
        "%lld first records after a kill spoiled\n",
        size, static_cast<long long>(sum.kills), static_cast<long long>(sum.records), static_cast<long long>(sum.cut),
        static_cast<long long>(sum.spoiled), static_cast<long long>(sum.restarts_spoiled));
    good = good && sum.spoiled == 0 && sum.restarts_spoiled == 0;
  }
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 3) {
    std::fprintf(stderr, "usage: append_race PROCESSES RECORDS ROUNDS\n");
    return 2;
  }
  ::setenv("KX_VISION_SHADOW_LOG", log_name, 1);
  const std::size_t processes = std::min<std::size_t>(std::stoul(arguments[0]), max_writers);
  const bool good = together(processes, std::stoll(arguments[1]));
  const bool survived = killed(std::stoi(arguments[2]));
  std::filesystem::remove(log_name);
  return good && survived ? 0 : 1;
}
