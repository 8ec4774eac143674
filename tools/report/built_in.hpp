#pragma once

/// Files of this folder that are compiled in.
namespace report::built_in {

extern const char* const prices;  ///< prices.json
extern const char* const style;   ///< report.css
extern const char* const script;  ///< judge.js

}  // namespace report::built_in
