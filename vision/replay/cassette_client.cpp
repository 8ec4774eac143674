#include "vision/replay/cassette_client.hpp"

#include <stdexcept>

#include "vision/replay/internal/tape.hpp"

namespace vision {
namespace asio = boost::asio;
namespace json = boost::json;

CassetteClient::CassetteClient(std::shared_ptr<Cassette> cassette) : cassette_(std::move(cassette)) {
  if (!cassette_) throw std::invalid_argument("CassetteClient: the cassette is null");
  if (cassette_->is_recording()) {
    throw std::invalid_argument("CassetteClient: there is no client to record for " + cassette_->_tape().folder());
  }
}

CassetteClient::CassetteClient(std::shared_ptr<Cassette> cassette, std::shared_ptr<MessagesClient> client)
    : cassette_(std::move(cassette)), client_(std::move(client)) {
  if (!cassette_ || !client_) throw std::invalid_argument("CassetteClient: the cassette or the client is null");
}

asio::awaitable<json::value> CassetteClient::create(const MessagesRequest& request) {
  detail::Tape& tape = cassette_->_tape();
  const detail::Question question(request);
  if (cassette_->is_replaying()) {
    if (const auto* entry = tape.find(question)) return detail::Tape::play(entry->line);
    if (!cassette_->is_recording()) tape.miss(question);
  }
  json::object call{{"call", "create"}, {"key", question.key}};
  call["occurrence"] = tape.next_occurrence(question.key);
  call["image"] = tape.store(request.image());
  call["request"] = question.body;
  const auto ask = [this, &request] { return client_->create(request); };
  return tape.record(std::move(call), ask);
}

}  // namespace vision
