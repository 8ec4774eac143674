#pragma once

#include <boost/json/object.hpp>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "vision/records/bytes.hpp"

/// What the benchmark programs share: arguments, meters, the printed result.
namespace vision::bench {

/// Arguments of the form "--name value" and, before them, positional ones.
class Arguments {
 public:
  Arguments(int argc, char** argv);
  /// Positional argument `i`. Ends the program with a message when it is missing.
  const std::string& at(std::size_t i) const;
  std::string text(const std::string& name, const std::string& fallback = "") const;
  long number(const std::string& name, long fallback) const;

 private:
  std::string program_;
  std::map<std::size_t, std::string> positional_;
  std::map<std::string, std::string> named_;
};

/// Processor time (user and system) and wall time spent since it was made.
class Meter {
 public:
  Meter();
  double cpu_s() const;
  double wall_s() const;

 private:
  double cpu_, wall_;
};

/// A line of /proc/self/status: "VmRSS" and "VmHWM" in kB, "Threads".
long process_status(const std::string& name);
/// Makes VmHWM, the peak of the resident memory, start anew.
void reset_peak_memory();
long open_descriptors();

/// Counted by allocations.cpp in the programs that it is linked into, on every
/// call of the allocator that any library makes.
struct Allocations {
  std::ptrdiff_t calls, live_bytes, peak_bytes;  // less than nothing when older blocks were freed
};
Allocations allocations() noexcept;
/// Begins to count, or the peak anew.
void reset_peak_allocation() noexcept;

Bytes read_bytes(const std::string& path);
void print(const boost::json::object& result);

/// What a host does once: names the models, and turns the log lines off.
void be_host();

}  // namespace vision::bench
