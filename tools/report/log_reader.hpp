#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/report/record.hpp"

namespace report {

/// What read_logs() found.
struct InputStats {
  std::int64_t files = 0;
  std::int64_t bytes = 0;            ///< unpacked
  std::int64_t records = 0;          ///< of the library, those that the caller filters out included
  std::int64_t skipped = 0;          ///< lines that are torn, empty, too long or foreign
  std::vector<std::string> damaged;  ///< "path: why": files whose rest could not be read
};

/// The files that `patterns` name: a path that exists is itself, another one with
/// `*`, `?` or `[` is a glob, "-" is standard input. Each file once, in the order
/// given, the matches of a glob sorted. Throws InputError for a pattern without a match.
std::vector<std::string> expand(const std::vector<std::string>& patterns);

/// Bytes of all files, packed; absent when one of them has no size (a pipe).
std::optional<std::uint64_t> total_size(const std::vector<std::string>& paths);

/// Calls `on_record` for every record of the files, one file after the other, and
/// `on_progress` every now and then with the packed bytes taken so far. Takes memory
/// for the longest line only; a line of more than 16 MiB is skipped. Throws
/// InputError for a file that cannot be opened; damage further on is reported in
/// the result.
InputStats read_logs(const std::vector<std::string>& paths, const std::function<void(const Record&)>& on_record,
                     const std::function<void(std::uint64_t)>& on_progress);

}  // namespace report
