#pragma once

#include <array>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "tests/support/scripted.hpp"
#include "vision/client/vision_client.hpp"

namespace vision::soak {

namespace asio = boost::asio;

enum class Mode { act_loop, shadow, observer, background, fallback };
enum class End { none, value, host_error, budget, cancelled, other };

/// How one mission ended: not at all when its event loop was destroyed first.
struct Ended {
  std::string id;
  Mode mode = Mode::act_loop;
  End end = End::none;
  std::string error;
};

/// What became of a lane: its missions, what its client's ledger holds, and what
/// its calls of the model came to.
struct LaneReport {
  std::vector<Ended> missions;
  std::int64_t calls = 0, latencies = 0, by_model = 0;
  std::int64_t finished = 0, unreached = 0, aborted = 0;
};

/// Collects the reports of lanes, from any thread.
struct Reports {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<LaneReport> lanes;
};

/// Some missions at once on one strand with one client, each with a page, faults
/// and perhaps a cancellation of its own. What runs owns it; its end is a report.
class Lane : public std::enable_shared_from_this<Lane> {
 public:
  static constexpr std::size_t size = 4;

  Lane(asio::any_io_executor strand, std::shared_ptr<MessagesClient> model, std::uint64_t number, Reports& reports);
  ~Lane();
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  /// On the strand.
  void start();

 private:
  struct Mission;
  class CountingModel;

  bool chance(int percent) { return random(100) < static_cast<unsigned>(percent); }
  std::uint64_t random(std::uint64_t bound) { return rng_() % bound; }
  asio::awaitable<void> pause(std::uint64_t most_ms);
  asio::awaitable<void> visit(Mode mode, std::string operation);
  asio::awaitable<void> hook();
  asio::awaitable<boost::json::object> step(std::string id, int failing_percent);

  asio::awaitable<void> run(std::shared_ptr<Lane> self, Mission& mission);
  asio::awaitable<void> cancel(std::shared_ptr<Lane> self, Mission& mission);
  asio::awaitable<void> act(Mission& mission);
  asio::awaitable<void> fall_back(Mission& mission);
  void end(Mission& mission, const std::exception_ptr& error);

  asio::any_io_executor strand_;
  std::minstd_rand rng_;
  Reports& reports_;
  LaneReport report_;
  std::unique_ptr<VisionClient> client_;
  std::array<std::unique_ptr<Mission>, size> missions_;
};

}  // namespace vision::soak
