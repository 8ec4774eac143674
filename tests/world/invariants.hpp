#pragma once

#include <string>
#include <vector>

#include "tests/world/host.hpp"

namespace vision::world {

/// Checks what must hold after every run, whatever was done to it. `lines` are the
/// lines of the shadow log. Breaches go into `world.violations`, each with the
/// number of the promise:
///
///   1. the ledger                6. the caller's context
///   2. the act loop's records    7. no unbidden page action
///   3. shadow mode               8. time bounds
///   4. the observer's record     9. errors and cancellation
///   5. the wrapper's runs       10. nothing left behind
void check(World& world, Host& host, const std::vector<std::string>& lines);

}  // namespace vision::world
