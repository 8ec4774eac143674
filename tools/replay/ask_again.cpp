#include "tools/replay/ask_again.hpp"

#include <fmt/core.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/json/value_to.hpp>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/internal/api_key.hpp"
#include "vision/client/internal/response.hpp"
#include "vision/replay/internal/tape.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/settings/settings.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"
#include "vision/wirein/internal/file.hpp"
#include "vision/wirein/internal/records.hpp"

namespace replay {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

using vision::ActionResult;
using vision::detail::Tape;
using vision::runtime::Duration;

// One recorded request and both answers to it.
struct Pair {
  explicit Pair(const Tape::Entry& of) : entry(of) {}

  const Tape::Entry& entry;
  vision::ImgMeta meta{1280, 800, 1, 0};
  std::string error;  // why the recorded call had no answer
  ActionResult recorded, asked;
};

vision::ImgMeta viewport_of(const std::string& user_text) {
  vision::ImgMeta meta(1280, 800, 1, 0);
  const std::size_t at = user_text.find("# Viewport\n");
  long long width = 0, height = 0;
  if (at == user_text.npos) return meta;
  if (std::sscanf(user_text.c_str() + at, "# Viewport\n%lld\xC3\x97%lld", &width, &height) != 2) return meta;
  meta.width_css = width;
  meta.height_css = height;
  return meta;
}

double latency_ms(const json::object& line) {
  return static_cast<double>(line.at("latency_ns").as_int64()) / 1e6;
}

void read_recorded(Pair& pair) {
  const json::object& line = pair.entry.line;
  if (const json::value* error = line.if_contains("error")) {
    pair.error =
        json::value_to<std::string>(error->at("kind")) + ": " + json::value_to<std::string>(error->at("message"));
  } else if (line.contains("unanswered")) {
    pair.error = "given up unanswered";
  } else {
    try {
      const auto model = json::value_to<std::string>(line.at("request").at("model"));
      pair.recorded = vision::_parse_response(line.at("response"), model, latency_ms(line), pair.meta);
    } catch (const std::exception& unreadable) {
      pair.error = unreadable.what();
    }
  }
}

asio::awaitable<void> ask(vision::MessagesClient& client, const vision::MessagesRequest& request, Pair& pair) {
  using vision::Cause;
  const auto executor = co_await asio::this_coro::executor;
  const auto& time = vision::runtime::time_source(executor);
  const Duration start = time.steady_now();
  const auto limit = vision::runtime::to_duration(vision::DEFAULT_TIMEOUT_S);
  auto response = co_await vision::runtime::with_deadline(client.create(request), limit);
  const double took = vision::runtime::to_seconds(time.steady_now() - start) * 1000;
  const auto failure = [&](Cause cause, std::string reason) {
    pair.asked = vision::_failure_result(cause, std::move(reason), request.model(), took);
  };
  if (response.timed_out()) {
    failure(Cause::call_timed_out, "vision timeout after " + vision::text::shortest(vision::DEFAULT_TIMEOUT_S) + "s");
    co_return;
  }
  try {
    pair.asked = vision::_parse_response(response.value(), request.model(), took, pair.meta);
  } catch (...) {
    failure(Cause::unexpected_error,
            "unexpected error: " + vision::text::full_exception_text(std::current_exception()));
  }
}

// In the form in which the report reads what an agent did.
std::string agent_text(const ActionResult& action) {
  std::string out = action.action;
  if (action.x_ratio && action.y_ratio) {
    out += " " + vision::text::fixed(*action.x_ratio, 4) + "," + vision::text::fixed(*action.y_ratio, 4);
  }
  return out + ": " + action.reason;
}

void write(const Pair& pair, const Tape& tape, const json::object* note, Comparison& to) {
  const json::object& line = pair.entry.line;
  const json::value* run = note ? note->if_contains("run_id") : nullptr;
  const auto site = note ? json::value_to<std::string>(note->at("hotspot_id")) : std::string("replay");
  // A run per request: pictures of one second must not be mistaken for each other.
  const std::string run_id = (run && run->is_string() ? json::value_to<std::string>(*run) : std::string("cassette")) +
                             "-" + std::to_string(pair.entry.number());
  const auto at = static_cast<double>(line.at("at_ns").as_int64()) / 1e9;
  const double recorded_ms = latency_ms(line);
  const double end = at + std::max(recorded_ms, pair.asked.latency_ms) / 1000;
  const auto context = note ? note->at("flow_context").as_object() : vision::FlowContext();
  auto record = vision::detail::record_header(end, run_id, site, context);
  record["vision"] = vision::_vision_block(pair.asked);
  json::object& agent = record["cua"].emplace_object();
  if (pair.error.empty()) {
    agent["latency_ms"] = static_cast<std::int64_t>(recorded_ms);
    agent["text_head"] = agent_text(pair.recorded);
  } else {
    agent["error"] = pair.error;
  }
  vision::detail::append_line(to.log, vision::text::to_json(record) + "\n");
  const auto picture = tape.load(std::string_view(line.at("image").as_string()));
  const std::string name = run_id + "_" + std::to_string(static_cast<std::int64_t>(std::floor(at))) + ".png";
  vision::detail::write_file(to.fixtures + "/" + site, name, picture.view());
}

asio::awaitable<void> ask_all(const Tape& tape, const std::string& model, Comparison& to) {
  vision::HttpMessagesClient client(vision::detail::resolve_api_key(""));
  const auto prefix = std::make_shared<const std::string>(vision::request_prefix(model));
  const Tape::Entry* mission = tape.first("act_loop");
  const json::object* note = mission ? &mission->line.at("arguments").at(0).as_object() : nullptr;
  for (const Tape::Entry& entry : tape.entries()) {
    if (entry.call() != "create") continue;
    const json::value& content = entry.line.at("request").at("messages").at(0).at("content");
    const auto user_text = json::value_to<std::string>(content.at(1).at("text"));
    auto picture = tape.load(std::string_view(entry.line.at("image").as_string()));
    const vision::MessagesRequest request(model, prefix, std::move(picture), user_text);
    Pair pair(entry);
    pair.meta = viewport_of(user_text);
    read_recorded(pair);
    co_await ask(client, request, pair);
    write(pair, tape, note, to);
    to.viewport = fmt::format("{}x{}", pair.meta.width_css, pair.meta.height_css);
    const bool has_answer = pair.asked.cause == vision::Cause::model_answer;
    ++to.asked;
    if (!has_answer) ++to.failed;
    if (has_answer && pair.error.empty() && pair.asked.action == pair.recorded.action) ++to.same;
    const std::string recorded = pair.error.empty() ? agent_text(pair.recorded) : pair.error;
    fmt::print("call {}: recorded {}; {}: {}\n", entry.number(), vision::text::one_line(recorded), model,
               vision::text::one_line(agent_text(pair.asked)));
    std::fflush(stdout);
  }
}

}  // namespace

Comparison ask_again(const std::string& folder, const std::string& model, const std::string& out) {
  const Tape tape(folder, vision::CassetteOptions().mode(vision::CassetteMode::none));
  if (tape.first("create") == nullptr) throw std::runtime_error(folder + " holds no requests");
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(model, model));
  Comparison to;
  to.log = out + "/shadow.jsonl";
  to.fixtures = out + "/fixtures";
  if (std::filesystem::exists(to.log)) throw std::runtime_error(to.log + " exists already: name another folder");
  asio::io_context io;
  std::exception_ptr failure;
  asio::co_spawn(io, ask_all(tape, model, to), [&failure](std::exception_ptr error) { failure = error; });
  io.run();
  if (failure) std::rethrow_exception(failure);
  return to;
}

}  // namespace replay
