#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vision/client/messages_client.hpp"

namespace vision::soak {

namespace asio = boost::asio;

/// What became of the lanes. Written by any thread, under the mutex.
struct Tally {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t lanes = 0;    ///< that have ended
  std::size_t callers = 0;  ///< of those lanes that ended before their event loop did
  std::size_t records = 0;  ///< that these callers must have written
  std::vector<std::string> breaches;
};

/// The number of callers in one lane.
constexpr std::size_t lane_size = 4;

/// Starts a lane: several callers at once on one strand with one client, each with its
/// own mode, page, faults and perhaps a cancellation. The operations under way own the
/// lane; it is counted when it ends.
void start_lane(const asio::any_io_executor& strand, std::shared_ptr<MessagesClient> model, std::uint64_t number,
                Tally& tally);

}  // namespace vision::soak
