#include "vision/wirein/act_loop.hpp"

#include "vision/page/execute_action.hpp"
#include "vision/runtime/internal/awaited.hpp"
#include "vision/runtime/internal/deadline.hpp"
#include "vision/runtime/internal/entry.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/act_rails.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"
#include "vision/wirein/internal/shot_and_ask.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

using detail::Terminal;

// One mission: its state lives as long as the call.
class Mission {
 public:
  Mission(BrowserPage& page, FlowContext flow_context, const ActLoopOptions& options)
      : page_(page),
        options_(options),
        client_(options.vision() ? *options.vision() : default_client()),
        context_(std::move(flow_context)),
        site_{options.hotspot_id(), options.run_id()} {
    ask_options_.prompt(_act_mission_text(options.mission_prompt())).high_stakes(options.high_stakes());
  }

  /// Whether there is to be another step. Without one the mission has its terminal.
  bool goes_on() {
    if (terminal_) return false;
    if (step_ < options_.max_steps()) return true;
    hand_over("step cap (" + std::to_string(options_.max_steps()) + ") reached without a terminal action");
    return false;
  }

  asio::awaitable<void> take_step() {
    ++step_;
    const auto limit = runtime::to_duration(DEFAULT_TIMEOUT_S * 2 + 12);
    const bool aborted = co_await abort_requested(limit);
    if (aborted) co_return hand_over("aborted by caller before step " + std::to_string(step_));
    auto operation = detail::shot_and_ask(client_, detail::borrowed(page_), context_, site_, ask_options_);
    auto answer = co_await runtime::with_deadline(std::move(operation), limit);
    if (!answer.has_value()) co_return unanswered(answer.timed_out(), answer.error());
    auto& [result, meta] = *answer.value();
    co_await _log_step(_observe_action_record(result));

    terminal_ = detail::rail_for(result, options_.read_only());
    if (terminal_) co_return;
    const int repeats = repeat_guard_.note(result);
    if (repeats >= ACT_REPEAT_LIMIT) {
      co_return hand_over("repeated identical " + result.action + " " + std::to_string(repeats) + "x with no progress");
    }
    if (result.action == ActionVerb::wait && result.duration_ms.value_or(0) > ACT_MAX_WAIT_MS) {
      result.duration_ms = ACT_MAX_WAIT_MS;
    }
    auto action = runtime::done(execute_action(page_, result, meta));
    const auto executed = co_await runtime::settle(std::move(action));
    if (executed.error()) {
      co_return hand_over("execute_action(" + result.action + ") failed at step " + std::to_string(step_) + ": " +
                          text::exception_text(executed.error()));
    }
    co_await let_page_settle(result.action);
    breadcrumbs_.add(step_, options_.max_steps(), result);
    context_["last_action"] = breadcrumbs_.text();
  }

  /// Writes the final record and gives the verdict.
  asio::awaitable<std::unique_ptr<ActionResult>> finish() {
    auto& [result, outcome] = *terminal_;
    const bool is_own = result->model_used == "act_loop";
    boost::json::object vision;
    if (is_own) {
      vision = _observe_action_record(*result);
    } else {
      vision["terminal"] = result->action;
    }
    auto record = co_await act_record(std::move(vision));
    record["final"] = true;
    record["outcome"] = is_own ? "escalate" : outcome;
    record["steps_used"] = step_;
    _append_shadow_record(record);
    co_return std::move(result);
  }

 private:
  // A broken probe does not stop a mission.
  asio::awaitable<bool> abort_requested(runtime::Duration limit) const {
    if (options_.should_abort()) co_return ask_now(options_.should_abort());
    if (!options_.should_abort_later()) co_return false;
    auto answer = co_await runtime::with_deadline(runtime::call(options_.should_abort_later()), limit);
    co_return answer.has_value() && answer.value();
  }

  static bool ask_now(const std::function<bool()>& probe) {
    try {
      return probe();
    } catch (...) {
      return false;
    }
  }

  void hand_over(std::string reason) { terminal_ = detail::hand_over(std::move(reason)); }

  void unanswered(bool timed_out, const std::exception_ptr& error) {
    const std::string step_name = "act step " + std::to_string(step_);
    if (timed_out) return hand_over(step_name + " timed out (screenshot hung?)");
    try {
      std::rethrow_exception(error);
    } catch (const BudgetExceeded& budget) {
      return hand_over(std::string("vision budget exhausted: ") + budget.what());
    } catch (...) {
      return hand_over(step_name + " error: " + text::exception_text(error));
    }
  }

  static asio::awaitable<void> let_page_settle(std::string_view action) {
    if (action == ActionVerb::click || action == ActionVerb::type || action == ActionVerb::key) {
      co_await runtime::sleep_for(runtime::to_duration(ACT_STEP_SETTLE_S));
    } else if (action == ActionVerb::scroll) {
      co_await runtime::sleep_for(runtime::to_duration(ACT_STEP_SETTLE_S / 2));
    }
  }

  asio::awaitable<boost::json::object> act_record(boost::json::object vision) {
    auto record = detail::record_header(co_await runtime::wall_seconds(), site_.run_id, site_.hotspot_id, context_);
    record["source"] = "act";
    record["step"] = step_;
    record["max_steps"] = options_.max_steps();
    record["vision"] = std::move(vision);
    co_return record;
  }

  asio::awaitable<void> _log_step(boost::json::object vision) {
    _append_shadow_record(co_await act_record(std::move(vision)));
  }

  BrowserPage& page_;
  const ActLoopOptions& options_;
  VisionClient& client_;
  FlowContext context_;  // the caller's, with our breadcrumbs in "last_action"
  detail::Site site_;
  AskOptions ask_options_;
  detail::RepeatGuard repeat_guard_;
  detail::Breadcrumbs breadcrumbs_;
  std::int64_t step_ = 0;  // counted from 1
  std::optional<Terminal> terminal_;
};

asio::awaitable<std::unique_ptr<ActionResult>> act_loop_body(BrowserPage& page, ActLoopOptions options) {
  FlowContext context = std::move(options).flow_context();
  Mission mission(page, std::move(context), options);
  while (mission.goes_on()) co_await mission.take_step();
  co_return co_await mission.finish();
}

}  // namespace

asio::awaitable<ActionResult> act_loop(BrowserPage& page, ActLoopOptions options) {
  return runtime::entry(act_loop_body(page, std::move(options)));
}

}  // namespace vision
