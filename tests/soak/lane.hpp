#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vision/client/messages_client.hpp"
#include "vision/client/metrics.hpp"

namespace vision::soak {

namespace asio = boost::asio;

enum class Mode { act_loop, shadow, observer, background, fallback };
enum class End { none, documented, cancelled, other };

/// How one mission ended: not at all when its event loop was destroyed first.
struct Ended {
  std::string id;
  Mode mode = Mode::act_loop;
  End end = End::none;
  std::string error;
};

/// What became of a lane: its missions, what its client's ledger holds, and what its
/// model saw.
struct LaneReport {
  std::vector<Ended> missions;
  VisionMetrics ledger;
  std::int64_t requests = 0, answers = 0;
};

/// Collects the reports of lanes, from any thread.
struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<LaneReport> lanes;
};

/// How many missions one lane has.
constexpr std::size_t lane_size = 4;

/// Starts a lane: some missions at once on one strand with one client, each with a
/// page, faults and perhaps a cancellation of its own. What runs owns it; its end is
/// a report.
void start_lane(const asio::any_io_executor& strand, std::shared_ptr<MessagesClient> model, std::uint64_t number,
                Reports& reports);

}  // namespace vision::soak
