#pragma once

#include <algorithm>

#include "tests/chromium/browser_fixture.hpp"

namespace vision::chromium::test {

// A browser with an open port, started here and used by somebody else, too.
class Connect : public testing::Test {
 protected:
  void SetUp() override {
    LaunchOptions options;
    options.argument("--remote-debugging-port=0");
    owner_ = run(launch(options));
    const auto profile = std::filesystem::directory_iterator(profiles_.path())->path();
    std::string port_file;
    while (std::count(port_file.begin(), port_file.end(), '\n') < 1) {
      port_file = vision::test::read_file(profile / "DevToolsActivePort");
    }
    port_ = port_file.substr(0, port_file.find('\n'));
    path_ = port_file.substr(port_file.find('\n') + 1);
  }
  void TearDown() override { run(owner_->close()); }

  const ProfilesHere profiles_;
  std::shared_ptr<Browser> owner_;
  std::string port_, path_;
};

}  // namespace vision::chromium::test
