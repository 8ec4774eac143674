#pragma once

#include <string>

#include "tools/check/checklist.hpp"

/// What the environment says, without a word to the network.
namespace check {

/// KX_VISION_TIER and KX_VISION_TIMEOUT_S: values that the library takes for the default.
void check_switches(Checklist& list);

/// Where the API key is found, never its text. Returns it, or empty when there is none to use.
std::string check_key(Checklist& list);

/// Whether the shadow log and, when they are stored, screenshots can be written. Leaves
/// nothing behind.
void check_folders(Checklist& list);

}  // namespace check
