#include "bench/memory.hpp"

#include <boost/json/monotonic_resource.hpp>
#include <stdexcept>

namespace vision::bench {
namespace {

boost::json::value answer(int turn) {
  const boost::json::object input = {{"action", "click"}, {"x_ratio", 0.1 * turn},
                                     {"y_ratio", 0.5},    {"reason", "The button is there."},
                                     {"confidence", 0.9}, {"next_expected_state", "A dialog is open."}};
  return {{"content", {{{"type", "tool_use"}, {"name", "propose_action"}, {"input", input}}}},
          {"usage", {{"input_tokens", 1500}, {"output_tokens", 80}}}};
}

}  // namespace

MemoryModel::MemoryModel(runtime::Duration thinks) : thinks_(thinks) {
  for (int turn = 0; turn < 9; ++turn) answers_.push_back(answer(turn));
}

asio::awaitable<boost::json::value> MemoryModel::create(const MessagesRequest&) {
  if (thinks_ > runtime::Duration::zero()) co_await runtime::sleep_for(thinks_);
  // In one block of memory, as the HTTP client returns it.
  co_return boost::json::value(answers_[static_cast<std::size_t>(turn_++) % answers_.size()],
                               boost::json::make_shared_resource<boost::json::monotonic_resource>());
}

asio::awaitable<void> mission(BrowserPage& page, VisionClient& client, long steps) {
  ActLoopOptions options({{"workflow_name", "share"}, {"phase", 2}, {"current_step", "open the share dialog"}},
                         "share");
  options.mission_prompt("Open the share dialog.").run_id("run-1").max_steps(steps).vision(client);
  const ActionResult verdict = co_await act_loop(page, std::move(options));
  if (verdict.reason.starts_with("step cap")) co_return;
  throw std::runtime_error("the mission ended early: " + verdict.reason);
}

}  // namespace vision::bench
