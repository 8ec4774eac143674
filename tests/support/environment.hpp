#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace vision::test {

/// Sets or unsets an environment variable for a scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = ::getenv(name)) old_ = old;
    set(value);
  }
  ~ScopedEnv() { set(old_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const std::optional<std::string>& value) { value ? ::setenv(name_, value->c_str(), 1) : ::unsetenv(name_); }
  const char* name_;
  std::optional<std::string> old_;
};

/// A new empty directory, the current one for a scope.
class ScratchDirectory {
 public:
  ScratchDirectory() : old_(std::filesystem::current_path()) {
    std::string pattern = (std::filesystem::temp_directory_path() / "vision-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
    std::filesystem::current_path(path_);
  }
  ~ScratchDirectory() {
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(path_);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path old_, path_;
};

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

inline std::vector<std::string> read_lines(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace vision::test
