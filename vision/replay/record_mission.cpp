#include "vision/replay/record_mission.hpp"

#include <boost/json/array.hpp>
#include <stdexcept>

#include "vision/replay/internal/mission_note.hpp"
#include "vision/replay/internal/tape.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/wirein/internal/records.hpp"

namespace vision {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

constexpr const char* probe_call = "should_abort";

asio::awaitable<json::value> ask(std::function<asio::awaitable<bool>()> probe) {
  co_return json::value(co_await probe());
}

asio::awaitable<bool> recorded_answer(detail::Tape& tape) {
  json::array none;
  const json::value answer = co_await tape.in_order(probe_call, std::move(none), nullptr);
  co_return answer.as_bool();
}

asio::awaitable<bool> answer_to_record(detail::Tape& tape, std::function<asio::awaitable<bool>()> probe) {
  const auto operation = [probe = std::move(probe)] { return ask(probe); };
  json::array none;
  const json::value answer = co_await tape.in_order(probe_call, std::move(none), operation);
  co_return answer.as_bool();
}

// Puts the cassette between the loop and the host's probe.
void wrap_probe(detail::Tape& tape, ActLoopOptions& options) {
  using Now = std::function<bool()>;
  using Later = std::function<asio::awaitable<bool>()>;
  if (tape.is_replaying()) {
    if (tape.first(probe_call) == nullptr) return;
    options.should_abort(Now());
    options.should_abort_later(Later([&tape] { return recorded_answer(tape); }));
  } else if (options.should_abort()) {
    options.should_abort(Now([&tape, probe = options.should_abort()] {
      return tape.in_order_now(probe_call, [&probe] { return json::value(probe()); }).as_bool();
    }));
  } else if (options.should_abort_later()) {
    options.should_abort_later(
        Later([&tape, probe = options.should_abort_later()] { return answer_to_record(tape, probe); }));
  }
}

asio::awaitable<json::value> run(BrowserPage& page, ActLoopOptions options, ActionResult& verdict) {
  verdict = co_await act_loop(page, std::move(options));
  co_return _observe_action_record(verdict);
}

asio::awaitable<ActionResult> mission(std::shared_ptr<Cassette> cassette, BrowserPage& page, ActLoopOptions options) {
  if (!cassette || options.vision() == nullptr) {
    throw std::invalid_argument("record_mission: the cassette or the client is missing");
  }
  detail::Tape& tape = cassette->_tape();
  wrap_probe(tape, options);
  if (tape.is_replaying()) co_return co_await act_loop(page, std::move(options));
  ActionResult verdict;
  json::object call{{"call", "act_loop"}, {"arguments", json::array{detail::note_of(options)}}};
  const auto operation = [&page, &options, &verdict] { return run(page, options, verdict); };
  co_await tape.record(std::move(call), operation);
  co_return verdict;
}

}  // namespace

asio::awaitable<ActionResult> record_mission(std::shared_ptr<Cassette> cassette, BrowserPage& page,
                                             ActLoopOptions options) {
  return runtime::with_own_cancellation(mission(std::move(cassette), page, std::move(options)));
}

}  // namespace vision
