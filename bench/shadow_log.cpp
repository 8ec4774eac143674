// Appends one record of about 600 bytes again and again.
//   shadow_log ours|floor RECORDS      the log is KX_VISION_SHADOW_LOG
// "floor" opens, writes and closes; its record is a text already.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "bench/support.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

using namespace vision;

namespace {

boost::json::object record() {
  ActionResult result("click", "The share button is in the toolbar, to the right of the title.", 0.93,
                      "A dialog with the link is open.");
  result.x_ratio = 0.8125;
  result.y_ratio = 0.0475;
  result.model_used = "light-model";
  result.latency_ms = 1234.5;
  result.input_tokens = 1530;
  result.output_tokens = 82;
  const FlowContext context = {{"phase", 2}, {"platform", "docs"}};
  boost::json::object out = detail::record_header(1763319900.0, "run-20251116-0001", "share-dialog", context);
  out["source"] = "act";
  out["step"] = 3;
  out["max_steps"] = 8;
  out["vision"] = _observe_action_record(result);
  return out;
}

void append(const std::string& path, const std::string& line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Arguments arguments(argc, argv);
  const bool ours = arguments.at(0) == "ours";
  const long records = std::stol(arguments.at(1));
  const boost::json::object one = record();
  const std::string line = text::to_json(one) + "\n", path = _shadow_log_path();
  const bench::Meter meter;
  for (long i = 0; i < records; ++i) {
    if (ours) {
      _append_shadow_record(one);
    } else {
      append(path, line);
    }
  }
  bench::print({{"cpu_s", meter.cpu_s() / static_cast<double>(records)}, {"bytes", line.size()}});
}
