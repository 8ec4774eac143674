#include "tools/report/log_reader.hpp"

#include <glob.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>

#include "tools/report/byte_source.hpp"

namespace report {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t chunk = 1024 * 1024;
constexpr std::size_t longest_line = 16 * chunk;

// Cuts a stream into lines. A line stays where it was read, with the padding that
// the parser needs behind it.
class Lines {
 public:
  explicit Lines(ByteSource& source) : source_(source), buffer_(2 * chunk + RecordParser::padding) {}

  // False at the end. The last line may lack its line feed. Too long a line is empty.
  bool next(std::string_view& line) {
    std::size_t searched = begin_;
    while (true) {
      const char* data = buffer_.data();
      if (const void* end = std::memchr(data + searched, '\n', end_ - searched)) {
        const auto at = static_cast<std::size_t>(static_cast<const char*>(end) - data);
        line = std::exchange(too_long_, false) ? std::string_view() : std::string_view(data + begin_, at - begin_);
        begin_ = at + 1;
        return true;
      }
      if (end_ - begin_ > longest_line) {
        too_long_ = true;
        begin_ = end_;
      }
      searched = end_ - begin_;  // after what is kept has moved to the front
      if (!more()) return last(line);
    }
  }

  std::int64_t bytes() const { return bytes_; }

 private:
  bool more() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
    if (buffer_.size() < end_ + chunk + RecordParser::padding) buffer_.resize(2 * buffer_.size());
    const std::size_t got = source_.read(buffer_.data() + end_, chunk);
    end_ += got;
    bytes_ += static_cast<std::int64_t>(got);
    return got > 0;
  }

  bool last(std::string_view& line) {
    if (begin_ == end_ && !too_long_) return false;
    line = too_long_ ? std::string_view() : std::string_view(buffer_.data() + begin_, end_ - begin_);
    begin_ = end_;
    too_long_ = false;
    return true;
  }

  ByteSource& source_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0, end_ = 0;
  bool too_long_ = false;
  std::int64_t bytes_ = 0;
};

std::vector<std::string> matches(const std::string& pattern) {
  glob_t found{};
  const int status = ::glob(pattern.c_str(), GLOB_BRACE, nullptr, &found);
  std::vector<std::string> out(found.gl_pathv, found.gl_pathv + (status == 0 ? found.gl_pathc : 0));
  ::globfree(&found);
  if (out.empty()) throw InputError(pattern + ": no such file, and nothing matches it");
  return out;
}

}  // namespace

std::vector<std::string> expand(const std::vector<std::string>& patterns) {
  std::vector<std::string> out;
  std::set<std::string> seen;
  for (const auto& pattern : patterns) {
    std::error_code ignored;
    const bool itself = pattern == "-" || fs::exists(pattern, ignored) || pattern.find_first_of("*?[{") == pattern.npos;
    for (const auto& path : itself ? std::vector{pattern} : matches(pattern)) {
      const fs::path real = fs::weakly_canonical(path, ignored);
      if (seen.insert(path == "-" ? path : real.string()).second) out.push_back(path);
    }
  }
  return out;
}

std::optional<std::uint64_t> total_size(const std::vector<std::string>& paths) {
  std::uint64_t total = 0;
  for (const auto& path : paths) {
    std::error_code error;
    if (path == "-" || !fs::is_regular_file(path, error)) return std::nullopt;
    total += fs::file_size(path, error);
  }
  return total;
}

InputStats read_logs(const std::vector<std::string>& paths, const std::function<void(const Record&)>& on_record,
                     const std::function<void(std::uint64_t)>& on_progress) {
  constexpr std::int64_t lines_between_progress = 4096;
  InputStats stats;
  RecordParser parser;
  std::uint64_t before = 0;
  for (const auto& path : paths) {
    const auto source = open_source(path);
    Lines lines(*source);
    try {
      std::string_view line;
      for (std::int64_t number = 1; lines.next(line); ++number) {
        const Record* record = parser.parse(line);
        (record ? stats.records : stats.skipped) += 1;
        if (record) on_record(*record);
        if (number % lines_between_progress == 0) on_progress(before + source->consumed());
      }
    } catch (const std::runtime_error& error) {
      stats.damaged.push_back(path + ": " + error.what());
    }
    stats.files += 1;
    stats.bytes += lines.bytes();
    before += source->consumed();
    on_progress(before);
  }
  return stats;
}

}  // namespace report
