#pragma once

#include <string>

#include "tools/report/accumulators.hpp"

/// Small drawings as SVG markup. Each says in words what it shows, for readers who
/// do not see it. Colours are the style sheet's.
namespace report {

/// A line of the shares over time, from 0 to 100 %, with a dot at the end. Empty
/// without events.
std::string sparkline(const Trend& trend);

/// A scale from 0 to 100 % with the share, what it can be at the given confidence
/// (one-sided each way), and the bar that the lower end has to reach.
std::string interval_scale(const Share& share, double confidence, double bar);

/// The share of right proposals against the confidence that the model gave. Dots
/// grow with the number of events and have their intervals; on the diagonal the
/// confidence would be right.
std::string reliability_curve(const Calibration& calibration, double confidence);

}  // namespace report
