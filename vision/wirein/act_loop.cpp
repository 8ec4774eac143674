#include "vision/wirein/act_loop.hpp"

#include "vision/page/execute_action.hpp"
#include "vision/runtime/deadline.hpp"
#include "vision/runtime/entry.hpp"
#include "vision/text/errors.hpp"
#include "vision/wirein/act_rails.hpp"
#include "vision/wirein/shadow_log.hpp"
#include "vision/wirein/shot_and_ask.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

using detail::hand_over;
using detail::Terminal;

// One mission: its state lives as long as the call.
class Mission {
 public:
  Mission(BrowserPage& page, const ActLoopOptions& options)
      : page_(page),
        options_(options),
        client_(options.vision() ? *options.vision() : default_client()),
        context_(options.flow_context()),
        site_(options.hotspot_id(), options.run_id()) {
    ask_options_.prompt(_act_mission_text(options.mission_prompt())).high_stakes(options.high_stakes());
  }

  asio::awaitable<ActionResult> run() {
    std::optional<Terminal> terminal;
    for (std::int64_t step = 1; !terminal && step <= options_.max_steps(); ++step) {
      steps_used_ = step;
      terminal = co_await take_step(step);
    }
    if (!terminal) {
      terminal = hand_over("step cap (" + std::to_string(options_.max_steps()) + ") reached without a terminal action");
    }
    co_await log_final(*terminal);
    co_return std::move(terminal->result);
  }

 private:
  // Absent when the mission goes on.
  asio::awaitable<std::optional<Terminal>> take_step(std::int64_t step) {
    if (abort_requested()) co_return hand_over("aborted by caller before step " + std::to_string(step));
    const auto limit = runtime::to_duration(DEFAULT_TIMEOUT_S * 2 + 12);
    auto operation = detail::shot_and_ask(client_, detail::borrowed(page_), context_, site_, ask_options_);
    auto answer = co_await runtime::with_deadline(std::move(operation), limit);
    if (!answer.has_value()) co_return unanswered(step, answer.timed_out(), answer.error());
    auto& [result, meta] = answer.value();
    co_await _log_step(step, _observe_action_record(result));

    if (auto terminal = detail::rail_for(result, options_.read_only())) co_return terminal;
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
      co_return hand_over("execute_action(" + result.action + ") failed at step " + std::to_string(step) + ": " +
                          text::exception_text(executed.error()));
    }
    co_await let_page_settle(result.action);
    breadcrumbs_.add(step, options_.max_steps(), result);
    context_["last_action"] = breadcrumbs_.text();
    co_return std::nullopt;
  }

  bool abort_requested() const {
    if (!options_.should_abort()) return false;
    try {
      return options_.should_abort()();
    } catch (...) {
      return false;  // a broken probe does not stop a mission
    }
  }

  static Terminal unanswered(std::int64_t step, bool timed_out, const std::exception_ptr& error) {
    const std::string step_name = "act step " + std::to_string(step);
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

  asio::awaitable<boost::json::object> act_record(std::int64_t step, boost::json::object vision) {
    auto record = detail::record_header(co_await runtime::wall_seconds(), site_.run_id, site_.hotspot_id, context_);
    record["source"] = "act";
    record["step"] = step;
    record["max_steps"] = options_.max_steps();
    record["vision"] = std::move(vision);
    co_return record;
  }

  asio::awaitable<void> _log_step(std::int64_t step, boost::json::object vision) {
    _append_shadow_record(co_await act_record(step, std::move(vision)));
  }

  asio::awaitable<void> log_final(const Terminal& terminal) {
    const bool is_own = terminal.result.model_used == "act_loop";
    boost::json::object vision;
    if (is_own) {
      vision = _observe_action_record(terminal.result);
    } else {
      vision["terminal"] = terminal.result.action;
    }
    auto record = co_await act_record(steps_used_, std::move(vision));
    record["final"] = true;
    record["outcome"] = is_own ? "escalate" : terminal.outcome;
    record["steps_used"] = steps_used_;
    _append_shadow_record(record);
  }

  BrowserPage& page_;
  const ActLoopOptions& options_;
  VisionClient& client_;
  FlowContext context_;  // the caller's, with our breadcrumbs in "last_action"
  detail::Site site_;
  AskOptions ask_options_;
  detail::RepeatGuard repeat_guard_;
  detail::Breadcrumbs breadcrumbs_;
  std::int64_t steps_used_ = 0;
};

asio::awaitable<ActionResult> act_loop_body(BrowserPage& page, ActLoopOptions options) {
  Mission mission(page, options);
  co_return co_await mission.run();
}

}  // namespace

asio::awaitable<ActionResult> act_loop(BrowserPage& page, ActLoopOptions options) {
  return runtime::entry(act_loop_body(page, std::move(options)));
}

}  // namespace vision
