#include "vision/wirein/act_loop.hpp"

#include <boost/asio/this_coro.hpp>

#include "vision/page/internal/carry_out.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/act_rails.hpp"
#include "vision/wirein/internal/observation.hpp"
#include "vision/wirein/internal/records.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

using detail::Terminal;

// One mission: its state lives as long as the call.
class Mission {
 public:
  Mission(BrowserPage& page, runtime::TimeSource& time, FlowContext flow_context, const ActLoopOptions& options)
      : page_(page),
        time_(time),
        options_(options),
        client_(detail::client_of(options)),
        context_(std::move(flow_context)),
        site_{options.hotspot_id(), options.run_id()} {
    ask_options_.prompt(_act_mission_text(options.mission_prompt())).high_stakes(options.high_stakes());
  }

  asio::awaitable<ActionResult> run() {
    while (!terminal_ && step_ < options_.max_steps()) co_await take_step();
    if (!terminal_) {
      hand_over(Cause::step_cap,
                "step cap (" + std::to_string(options_.max_steps()) + ") reached without a terminal action");
    }
    co_await runtime::throw_if_cancelled();  // a probe that says "abort" may have cancelled us too
    write_final_record();
    co_return std::move(terminal_->result);
  }

 private:
  asio::awaitable<void> take_step() {
    ++step_;
    const auto limit = runtime::to_duration(DEFAULT_TIMEOUT_S * 2 + ACT_STEP_MARGIN_S);
    const bool aborted = co_await abort_requested(limit);
    if (aborted) co_return hand_over(Cause::aborted, "aborted by caller before step " + std::to_string(step_));
    auto operation = detail::shot_and_ask(client_, detail::borrowed(page_), context_, site_, ask_options_);
    auto answer = co_await runtime::with_deadline(std::move(operation), limit);
    if (!answer.has_value()) co_return unanswered(answer.timed_out(), answer.error());
    auto& [result, meta] = answer.value();
    _log_step(result);

    terminal_ = detail::rail_for(result, options_.read_only());
    if (terminal_) co_return;
    const int repeats = repeat_guard_.note(result);
    if (repeats >= ACT_REPEAT_LIMIT) {
      co_return hand_over(Cause::repeated_proposal,
                          "repeated identical " + result.action + " " + std::to_string(repeats) + "x with no progress");
    }
    if (result.action == ActionVerb::wait && result.duration_ms.value_or(0) > ACT_MAX_WAIT_MS) {
      result.duration_ms = ACT_MAX_WAIT_MS;
    }
    const auto executed = co_await runtime::try_await(detail::carry_out(page_, result, meta));
    if (executed.error()) {
      co_return hand_over(Cause::action_failed, "execute_action(" + result.action + ") failed at step " +
                                                    std::to_string(step_) + ": " +
                                                    text::exception_text(executed.error()));
    }
    co_await let_page_settle(result.action);
    breadcrumbs_.add(step_, options_.max_steps(), result);
    context_["last_action"] = breadcrumbs_.text();
  }

  void write_final_record() const {
    const ActionResult& result = terminal_->result;
    const bool is_own = result.model_used == "act_loop";
    auto record = act_record();
    if (is_own) {
      record["vision"] = _observe_action_record(result, record.storage());
    } else {
      record["vision"].emplace_object()["terminal"] = result.action;
    }
    record["final"] = true;
    record["outcome"] = is_own ? "escalate" : terminal_->outcome;
    record["steps_used"] = step_;
    _append_shadow_record(record);
  }

  // A broken probe does not stop a mission.
  asio::awaitable<bool> abort_requested(runtime::Duration limit) const {
    if (options_.should_abort()) co_return ask_now(options_.should_abort());
    if (!options_.should_abort_later()) co_return false;
    auto answer = co_await runtime::with_deadline(ask_later(options_.should_abort_later()), limit);
    co_return answer.has_value() && answer.value();
  }

  // A coroutine, so that a probe that throws at once is one that fails.
  static asio::awaitable<bool> ask_later(const std::function<asio::awaitable<bool>()>& probe) {
    co_return co_await probe();
  }

  static bool ask_now(const std::function<bool()>& probe) {
    try {
      return probe();
    } catch (...) {
      return false;
    }
  }

  void hand_over(Cause cause, std::string reason) { terminal_ = detail::hand_over(cause, std::move(reason)); }

  void unanswered(bool timed_out, const std::exception_ptr& error) {
    const std::string step_name = "act step " + std::to_string(step_);
    if (timed_out) return hand_over(Cause::step_timed_out, step_name + " timed out (screenshot hung?)");
    try {
      std::rethrow_exception(error);
    } catch (const BudgetExceeded& budget) {
      return hand_over(Cause::budget_exhausted, std::string("vision budget exhausted: ") + budget.what());
    } catch (...) {
      return hand_over(Cause::step_failed, step_name + " error: " + text::exception_text(error));
    }
  }

  static asio::awaitable<void> let_page_settle(std::string_view action) {
    if (action == ActionVerb::click || action == ActionVerb::type || action == ActionVerb::key) {
      co_await runtime::sleep_for(runtime::to_duration(ACT_STEP_SETTLE_S));
    } else if (action == ActionVerb::scroll) {
      co_await runtime::sleep_for(runtime::to_duration(ACT_STEP_SETTLE_S / 2));
    }
  }

  boost::json::object act_record() const {
    const double now = runtime::to_seconds(time_.wall_now());
    auto record = detail::record_header(now, site_.run_id, site_.hotspot_id, context_);
    record["source"] = "act";
    record["step"] = step_;
    record["max_steps"] = options_.max_steps();
    return record;
  }

  void _log_step(const ActionResult& result) const {
    auto record = act_record();
    record["vision"] = _observe_action_record(result, record.storage());
    _append_shadow_record(record);
  }

  BrowserPage& page_;
  runtime::TimeSource& time_;
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

asio::awaitable<ActionResult> act_loop_body(BrowserPage& page, ActLoopOptions options) {
  const auto executor = co_await asio::this_coro::executor;
  FlowContext context = std::move(options).flow_context();
  Mission mission(page, runtime::time_source(executor), std::move(context), options);
  co_return co_await mission.run();
}

}  // namespace

asio::awaitable<ActionResult> act_loop(BrowserPage& page, ActLoopOptions options) {
  return runtime::with_own_cancellation(act_loop_body(page, std::move(options)));
}

}  // namespace vision
