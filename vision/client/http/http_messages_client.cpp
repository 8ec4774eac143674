#include "vision/client/http/http_messages_client.hpp"

#include <string.h>

#include <boost/asio/this_coro.hpp>

#include "vision/client/http/internal/run_exchange.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

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
}

asio::awaitable<boost::json::value> HttpMessagesClient::create(const MessagesRequest& request) {
  return send(endpoint_, request);
}

}  // namespace vision
