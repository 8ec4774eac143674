#include "vision/client/http/http_messages_client.hpp"

#include <string.h>

#include <boost/asio/this_coro.hpp>

#include "vision/client/http/internal/run_exchange.hpp"
#include "vision/settings/internal/log.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

// A function, and not a member, so that the client may be destroyed meanwhile.
asio::awaitable<boost::json::value> send(std::shared_ptr<const detail::http::Endpoint> endpoint,
                                         MessagesRequest request) {
  const auto driver = detail::http::driver_of(co_await asio::this_coro::executor);
  const auto exchange = std::make_shared<detail::http::Exchange>(std::move(endpoint), std::move(request));
  co_await detail::http::run(driver, exchange);
  co_return exchange->result();
}

}  // namespace

HttpMessagesClient::HttpMessagesClient(std::string api_key, HttpOptions options) {
  endpoint_ = std::make_shared<detail::http::Endpoint>(api_key, options);
  ::explicit_bzero(api_key.data(), api_key.size());
  if (!endpoint_->key.is_removable()) {
    log::line(spdlog::level::info,
              "vision: the API key has fewer than %d characters and is not removed from answers and errors",
              detail::http::SecretKey::shortest_removable);
  }
}

asio::awaitable<boost::json::value> HttpMessagesClient::create(const MessagesRequest& request) {
  return send(endpoint_, request);
}

}  // namespace vision
