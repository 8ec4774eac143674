#pragma once

#include <functional>

namespace vision::test {

/// While one exists, resolving "stuck.test" hangs until it is destroyed. The
/// name "missing.test" never exists.
class StuckResolver {
 public:
  /// `on_query` is called on the resolving thread.
  explicit StuckResolver(std::function<void()> on_query);
  ~StuckResolver();
  StuckResolver(const StuckResolver&) = delete;
  StuckResolver& operator=(const StuckResolver&) = delete;
};

}  // namespace vision::test
