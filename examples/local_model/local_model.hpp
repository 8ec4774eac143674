#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "examples/loopback/loopback_server.hpp"

/// A model without a hosted service: optical character recognition that follows
/// numbered instructions. It exists so that everything else can be seen working
/// without an API key; it understands only the sentences that usage.txt lists.
namespace local_model {

/// The optional parameters of LocalModel.
class LocalModelOptions {
 public:
  LocalModelOptions() {}
  /// TCP port. Default 0: any free one.
  LocalModelOptions& port(std::uint16_t value) {
    port_ = value;
    return *this;
  }
  /// The key that requests must carry. Default: any key that is not empty.
  LocalModelOptions& api_key(std::string value) {
    api_key_ = std::move(value);
    return *this;
  }

  std::uint16_t port() const noexcept { return port_; }
  const std::string& api_key() const noexcept { return api_key_; }

 private:
  std::uint16_t port_ = 0;
  std::string api_key_;
};

/// Serves POST /v1/messages on 127.0.0.1, from construction to `stop` or
/// destruction, on the executor it is given; it reads pictures on threads of its
/// own. It decides from the request alone, validates it as strictly as the hosted
/// API does, and answers, errors included, in the vendor's format. It accepts any
/// model name.
class LocalModel {
 public:
  /// Throws boost::system::system_error when it cannot listen, std::runtime_error
  /// when Tesseract's data is not installed.
  explicit LocalModel(const boost::asio::any_io_executor& executor, LocalModelOptions options = LocalModelOptions());
  /// Blocks while a picture is being read. The executor's context must exist.
  ~LocalModel();
  LocalModel(const LocalModel&) = delete;
  LocalModel& operator=(const LocalModel&) = delete;

  std::uint16_t port() const noexcept;
  /// "http://127.0.0.1:" and the port.
  std::string base_url() const;
  /// Ends every connection and cancels the requests in progress.
  void stop();

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::unique_ptr<loopback::LoopbackServer> server_;
};

}  // namespace local_model
