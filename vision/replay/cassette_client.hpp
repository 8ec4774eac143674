#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "vision/client/messages_client.hpp"
#include "vision/replay/cassette.hpp"

namespace vision {

/// A MessagesClient that answers from a cassette, or passes the request on and records
/// what comes back.
///
/// A request matches a recorded one when its whole body is the same, the picture included;
/// what was recorded several times is replayed in that order. A recorded answer or error
/// comes after the recorded latency on the loop's time source: at once in virtual time. A
/// recorded request that was given up, at a time limit for example, is not answered until
/// it is given up again.
class CassetteClient : public MessagesClient {
 public:
  /// Replays only. Throws std::invalid_argument when `cassette` is null or records.
  explicit CassetteClient(std::shared_ptr<Cassette> cassette);
  /// Records what `client` answers, where the cassette's mode says so; else does not use
  /// it. Throws std::invalid_argument when one of the two is null.
  CassetteClient(std::shared_ptr<Cassette> cassette, std::shared_ptr<MessagesClient> client);

  /// Throws CassetteMiss when the recording lacks the request, std::system_error when a
  /// recording cannot be written.
  boost::asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

 private:
  const std::shared_ptr<Cassette> cassette_;
  const std::shared_ptr<MessagesClient> client_;
};

}  // namespace vision
