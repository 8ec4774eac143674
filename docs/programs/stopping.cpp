// What docs/cancellation.md shows, as one program: a mission that is stopped, and
// the order in which a process shuts down.
#include <boost/asio.hpp>
#include <iostream>

#include "docs/programs/picture_page.hpp"
#include "examples/models.hpp"
#include "vision/vision.hpp"

namespace asio = boost::asio;

namespace {

/// A model that never answers: only cancellation ends a request to it.
class SilentModel : public vision::MessagesClient {
 public:
  explicit SilentModel(std::function<void()> asked) : asked_(std::move(asked)) {}

  // [operation]
  asio::awaitable<boost::json::value> create(const vision::MessagesRequest&) override {
    asio::steady_timer never(co_await asio::this_coro::executor, asio::steady_timer::time_point::max());
    asked_();
    co_await never.async_wait(asio::use_awaitable);  // ends with operation_aborted on terminal cancellation
    co_return nullptr;
  }
  // [operation]

 private:
  std::function<void()> asked_;
};

// [stoppable]
/// One mission that any thread may stop.
class StoppableMission {
 public:
  explicit StoppableMission(asio::any_io_executor executor) : executor_(std::move(executor)) {}

  void start(vision::BrowserPage& page, vision::ActLoopOptions options) {
    asio::co_spawn(executor_, run(page, std::move(options)),
                   asio::bind_cancellation_slot(stop_.slot(), [this](std::exception_ptr error) {
                     stopped = error != nullptr;  // operation_aborted, or what default_client() threw
                   }));
  }

  /// Signals are not thread-safe: they are emitted on the mission's own executor.
  void stop() {
    asio::post(executor_, [this] { stop_.emit(asio::cancellation_type::terminal); });
  }

  bool stopped = false;

 private:
  static asio::awaitable<void> run(vision::BrowserPage& page, vision::ActLoopOptions options) {
    const vision::ActionResult verdict = co_await vision::act_loop(page, std::move(options));
    std::cout << verdict.action << ": " << verdict.reason << "\n";
  }

  asio::any_io_executor executor_;
  asio::cancellation_signal stop_;
};
// [stoppable]

}  // namespace

int main() {
  using vision::StaticModelRegistry;
  vision::set_model_registry(std::make_shared<StaticModelRegistry>(examples::light_model, examples::heavy_model));
  // [order]
  asio::io_context io;  // destroyed last: everything below belongs to it
  PicturePage page;
  std::function<void()> on_question;
  vision::VisionClient client(std::make_shared<SilentModel>([&] { on_question(); }));
  StoppableMission mission(io.get_executor());
  on_question = [&] { mission.stop(); };

  const vision::FlowContext context = {{"workflow_name", "share"}};
  vision::ActLoopOptions options(context, "share-dialog");
  options.vision(client);
  mission.start(page, std::move(options));
  io.run();  // returns when no work is left: the mission has ended
  // [order]
  std::cout << (mission.stopped ? "stopped\n" : "not stopped\n");
  return mission.stopped ? 0 : 1;
}
