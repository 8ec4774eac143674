#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/json/value.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "bindings/c/handles.hpp"
#include "bindings/c/options.hpp"

namespace vision::c {

/// What an operation works with.
struct Input {
  explicit Input(const vision_call& call);

  /// Whether every handle belongs to `loop`. Throws std::invalid_argument otherwise.
  void check(const Loop& loop) const;

  ///@{
  /// Each throws std::invalid_argument when it is missing. On the loop's thread.
  std::shared_ptr<BrowserPage> page() const;
  std::shared_ptr<chromium::ChromiumPage> chromium_page() const;
  std::shared_ptr<chromium::Browser> browser() const;
  VisionClient& client() const { return client_handle->get(); }
  Bytes image() const;
  ///@}

  std::string options;
  std::shared_ptr<Page> page_handle;
  std::shared_ptr<Client> client_handle;
  std::shared_ptr<Browser> browser_handle;
  std::optional<Bytes> given_image;
  vision_mode_functions functions{};
  void* host = nullptr;
};

/// What an operation gives.
struct Output {
  Output() {}
  explicit Output(boost::json::value json) : value(std::move(json)) {}

  boost::json::value value;
  std::optional<Bytes> image;
  std::shared_ptr<Page> page;
  std::shared_ptr<Browser> browser;
};

/// An operation's name and code. `options` are those of the input: the body asks for all
/// of them and then calls finish().
struct Kind {
  std::string_view name;
  bool asks_the_model;
  boost::asio::awaitable<Output> (*body)(const Input& input, Options options);
};

///@{
/// All there are.
std::span<const Kind> model_operations();
std::span<const Kind> page_operations();
///@}

/// One operation, from vision_start to its end.
class Operation : public std::enable_shared_from_this<Operation> {
 public:
  Operation(std::shared_ptr<Loop> loop, const char* name, const vision_call& call);

  /// Lets it start, and gives its number; 0 when the loop is ending.
  vision_operation begin();

  ///@{
  /// On the loop's thread.
  void start();
  void cancel();
  ///@}

  const std::shared_ptr<Loop>& loop() const noexcept { return loop_; }

 private:
  static boost::asio::awaitable<void> run(std::shared_ptr<Operation> self);
  void prepare();
  void end();
  void report(const std::exception_ptr& error);

  const std::shared_ptr<Loop> loop_;
  const std::string name_;
  const vision_operation number_;
  const vision_done done_;
  const Kind* kind_ = nullptr;
  Input input_;
  Output output_;
  std::exception_ptr error_;
  boost::asio::cancellation_signal signal_;
  bool is_running_ = false, is_cancelled_ = false;
};

}  // namespace vision::c
