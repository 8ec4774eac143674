#pragma once

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/environment.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/log_reader.hpp"

namespace report::test {

/// Reads logs from a folder of its own and notes the site of each record.
class Reading : public testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content) {
    const auto path = folder_.path() / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  InputStats read(const std::vector<std::string>& paths) {
    return read_logs(
        paths, [&](const Record& record) { sites_.emplace_back(record.site); }, [](std::uint64_t) {});
  }
  template <class Action>
  static std::string error_of(Action action) {
    try {
      action();
      return "no error";
    } catch (const InputError& error) {
      return error.what();
    }
  }

  vision::test::ScratchDirectory folder_;
  std::vector<std::string> sites_;
};

}  // namespace report::test
