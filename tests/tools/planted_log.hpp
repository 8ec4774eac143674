#pragma once

#include <fmt/core.h>

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>

#include "tools/report/words.hpp"

namespace report::test {

/// A shadow log whose truth is known: at every site, success-path records agree with
/// a chance that the site's number fixes. The same seed writes the same log.
class PlantedLog {
 public:
  explicit PlantedLog(unsigned seed) : random_(seed) {}

  /// The true agreement of a site: 0.5 to 1 in steps of a hundredth.
  static double agreement(int site) { return 0.5 + (site % 51) / 100.0; }
  static std::string site_name(int site) { return "site-" + std::to_string(site); }

  /// The next record of a site, without the line feed.
  std::string record(int site) {
    const bool agrees = chance_(random_) < agreement(site);
    const double x = 0.1 + 0.8 * chance_(random_), y = 0.1 + 0.8 * chance_(random_);
    const double off = 0.02 * chance_(random_);
    time_ += 1;
    return fmt::format(
        R"({{"ts": "{}", "run_id": "run-{}", "hotspot_id": "{}", "phase": 2, "agent": "acme", "source": "dom_success", )"
        R"("vision": {{"action": "{}", "reason": "The Share button is in the toolbar \u2014 number {}", )"
        R"("confidence": {:.2f}, "next_expected_state": "A dialog opens", "x_ratio": {:.4f}, "y_ratio": {:.4f}, )"
        R"("model": "claude-haiku-4-5", "latency_ms": {:.1f}, "input_tokens": 1500, "output_tokens": 200, )"
        R"("low_confidence": false}}, "dom_ground_truth": {{"true_x_ratio": {:.4f}, "true_y_ratio": {:.4f}, )"
        R"("label": "Share", "clickedTag": "BUTTON"}}}})",
        timestamp(1'794'000'000 + time_ / 8), time_ / 100, site_name(site), agrees ? "click" : "scroll", time_,
        0.6 + 0.4 * chance_(random_), x + off, y, 900 + 900 * chance_(random_), x, y);
  }

 private:
  std::mt19937 random_;
  std::uniform_real_distribution<double> chance_{0, 1};
  std::int64_t time_ = 0;
};

}  // namespace report::test
