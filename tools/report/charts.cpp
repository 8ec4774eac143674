#include "tools/report/charts.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>

#include "tools/report/words.hpp"

namespace report {
namespace {

std::string svg(int width, int height, const char* css_class, const std::string& label, const std::string& content) {
  return fmt::format(
      "<svg class=\"{}\" viewBox=\"0 0 {} {}\" width=\"{}\" height=\"{}\" role=\"img\" aria-label=\"{}\">{}</svg>",
      css_class, width, height, width, height, label, content);
}

// Neighbouring stretches together, until each has enough events for a share to mean
// something: five, and a sixteenth of all.
std::vector<Trend::Stretch> smoothed(const std::vector<Trend::Stretch>& stretches) {
  Share all;
  for (const auto& one : stretches) all.add(one.share);
  const std::int64_t enough = std::max<std::int64_t>(5, all.trials / 16);
  std::vector<Trend::Stretch> out;
  for (const auto& one : stretches) {
    if (out.empty() || out.back().share.trials >= enough)
      out.push_back(one);
    else
      out.back().share.add(one.share);
  }
  return out;
}

}  // namespace

std::string sparkline(const Trend& trend) {
  constexpr int width = 120, height = 28;
  constexpr double margin = 4, inner_width = width - 2 * margin, inner_height = height - 2 * margin;
  const auto stretches = smoothed(trend.stretches());
  if (stretches.empty()) return {};
  const auto begin = static_cast<double>(stretches.front().begin);
  const double span = std::max(1.0, static_cast<double>(stretches.back().begin) - begin);
  std::string points;
  double x = 0, y = 0;
  for (const auto& one : stretches) {
    x = margin + (static_cast<double>(one.begin) - begin) / span * inner_width;
    if (stretches.size() == 1) x = width - margin;
    y = margin + (1 - one.share.value().value_or(0)) * inner_height;
    points += fmt::format("{:.1f},{:.1f} ", x, y);
  }
  const std::string label =
      fmt::format("agreement over time: {} at first, {} at last", percent(stretches.front().share.value().value_or(0)),
                  percent(stretches.back().share.value().value_or(0)));
  return svg(width, height, "spark", label,
             fmt::format("<polyline points=\"{}\"/><circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3\"/>", points, x, y));
}

std::string interval_scale(const Share& share, double confidence, double bar) {
  constexpr int width = 320, height = 34;
  constexpr double left = 6, inner = width - 2 * left, middle = 12;
  const auto x = [&](double ratio) { return left + ratio * inner; };
  const double lower = lower_bound(share, confidence), upper = upper_bound(share, confidence);
  const std::string label = fmt::format("{} of {}, from {} to {}; the bar is {}", share.hits, share.trials,
                                        percent(lower), percent_at_most(upper), percent(bar));
  std::string content =
      fmt::format("<line class=\"rail\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>", x(0), middle, x(1), middle);
  content += fmt::format("<line class=\"interval {}\" x1=\"{:.1f}\" y1=\"{}\" x2=\"{:.1f}\" y2=\"{}\"/>",
                         lower >= bar ? "good" : "", x(lower), middle, x(upper), middle);
  if (share.trials > 0) {
    content += fmt::format("<circle cx=\"{:.1f}\" cy=\"{}\" r=\"5\"/>", x(share.value().value_or(0)), middle);
  }
  content += fmt::format("<line class=\"bar\" x1=\"{:.1f}\" y1=\"2\" x2=\"{:.1f}\" y2=\"22\"/>", x(bar), x(bar));
  content += fmt::format(
      "<text x=\"{}\" y=\"32\">0 %</text><text x=\"{:.1f}\" y=\"32\" text-anchor=\"middle\">{}</text>"
      "<text x=\"{}\" y=\"32\" text-anchor=\"end\">100 %</text>",
      x(0), x(bar), percent(bar), x(1));
  return svg(width, height, "scale", label, content);
}

std::string reliability_curve(const Calibration& calibration, double confidence) {
  constexpr int width = 320, height = 300;
  constexpr double left = 44, top = 10, side = 240;
  const auto x = [&](double ratio) { return left + ratio * side; };
  const auto y = [&](double ratio) { return top + (1 - ratio) * side; };
  std::string content =
      fmt::format("<rect class=\"frame\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"/>", x(0), y(1), side, side);
  content += fmt::format("<line class=\"diagonal\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>", x(0), y(0), x(1), y(1));
  for (const int tick : {0, 50, 100}) {
    const double ratio = tick / 100.0;
    content +=
        fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"end\">{} %</text>", x(0) - 6, y(ratio) + 4, tick);
    content +=
        fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"middle\">{}</text>", x(ratio), y(0) + 16, ratio);
  }
  content +=
      fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"middle\">confidence given</text>", x(0.5), y(0) + 34);
  std::string label = "right proposals by confidence:";
  for (const auto& bin : calibration.curve()) {
    if (bin.right.trials == 0) continue;
    const auto events = static_cast<double>(bin.right.trials);
    const double share = bin.right.value().value_or(0), mean = bin.confidence_sum / events;
    const double radius = 3 + 9 * std::sqrt(events / static_cast<double>(calibration.events()));
    content += fmt::format("<line class=\"whisker\" x1=\"{0:.1f}\" y1=\"{1:.1f}\" x2=\"{0:.1f}\" y2=\"{2:.1f}\"/>",
                           x(mean), y(lower_bound(bin.right, confidence)), y(upper_bound(bin.right, confidence)));
    content += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"{:.1f}\"/>", x(mean), y(share), radius);
    label += fmt::format(" {:.2f}: {} of {};", mean, bin.right.hits, bin.right.trials);
  }
  return svg(width, height, "reliability", label, content);
}

}  // namespace report
