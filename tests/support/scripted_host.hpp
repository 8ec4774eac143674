#pragma once

#include <gtest/gtest.h>

#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"

namespace vision::test {

/// A host with a scripted page and model on a virtual event loop, in a folder of its own.
class ScriptedHost : public testing::Test {
 protected:
  TestRegistry& registry = TestRegistry::instance();
  ScratchDirectory directory;
  ScopedEnv log_path{"KX_VISION_SHADOW_LOG", std::nullopt};
  LogCapture log;
  VirtualLoop loop;
  ScriptedPage page;
  std::shared_ptr<ScriptedModel> model = std::make_shared<ScriptedModel>();
  VisionClient client{model};
};

}  // namespace vision::test
