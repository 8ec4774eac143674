#include "bench/support.hpp"

#include <spdlog/spdlog.h>
#include <sys/resource.h>

#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "bench/base64.h"
#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/base64.hpp"

namespace vision::bench {
namespace {

double cpu_now() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](timeval t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double wall_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Arguments::Arguments(int argc, char** argv) : program_(argv[0]) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.starts_with("--") && i + 1 < argc) {
      named_[word.substr(2)] = argv[++i];
    } else {
      positional_.emplace(positional_.size(), word);
    }
  }
}

const std::string& Arguments::at(std::size_t i) const {
  const auto found = positional_.find(i);
  if (found != positional_.end()) return found->second;
  std::cerr << program_ << ": argument " << i + 1 << " is missing\n";
  std::exit(2);
}

std::string Arguments::text(const std::string& name, const std::string& fallback) const {
  const auto found = named_.find(name);
  return found == named_.end() ? fallback : found->second;
}

long Arguments::number(const std::string& name, long fallback) const {
  const auto found = named_.find(name);
  return found == named_.end() ? fallback : std::stol(found->second);
}

Meter::Meter() : cpu_(cpu_now()), wall_(wall_now()) {}
double Meter::cpu_s() const {
  return cpu_now() - cpu_;
}
double Meter::wall_s() const {
  return wall_now() - wall_;
}

long process_status(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

void reset_peak_memory() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

long open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;  // the listing's own
}

Bytes read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  std::string content(in ? static_cast<std::size_t>(in.tellg()) : 0, '\0');  // at once: growing leaves memory behind
  in.seekg(0);
  if (!in.read(content.data(), std::ssize(content))) {
    std::cerr << "cannot read " << path << "\n";
    std::exit(2);
  }
  return Bytes(std::move(content));
}

void print(const boost::json::object& result) {
  std::cout << boost::json::serialize(result) << std::endl;
}

void be_host() {
  spdlog::set_level(spdlog::level::warn);
  set_model_registry(std::make_shared<StaticModelRegistry>("light-model", "heavy-model"));
}

}  // namespace vision::bench

size_t bench_base64(const char* data, size_t size, char* out) {
  return vision::base64::encode({data, size}, out);
}
