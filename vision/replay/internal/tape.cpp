#include "vision/replay/internal/tape.hpp"

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "vision/client/api_error.hpp"
#include "vision/replay/internal/recorded_error.hpp"
#include "vision/replay/internal/sha256.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/duration.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/json_reader.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/wirein/internal/file.hpp"

namespace vision::detail {
namespace asio = boost::asio;
namespace fs = std::filesystem;
namespace json = boost::json;
namespace {

constexpr const char* lines_name = "/cassette.jsonl";

// Calls of one kind are replayed in their order; between kinds the order is free.
bool same_kind(std::string_view a, std::string_view b) {
  const auto kind = [](std::string_view call) {
    return call == "create" ? 0 : call == "should_abort" ? 1 : call == "act_loop" ? 2 : 3;
  };
  return kind(a) == kind(b);
}

std::string call_text(std::string_view call, const json::array& arguments) {
  return arguments.empty() ? std::string(call) : std::string(call) + " " + text::to_json(arguments);
}

// Throws unless the line is one that this file could have written.
Tape::Entry checked(const json::value& value) {
  if (!value.is_object()) throw std::runtime_error("it is not a JSON object");
  const json::object& line = value.as_object();
  const auto require = [&line](const char* name, json::kind kind) {
    const json::value* member = line.if_contains(name);
    if (member != nullptr && member->kind() == kind) return;
    throw std::runtime_error(std::string("\"") + name + "\" is missing or not of type " +
                             std::string(json::to_string(kind)));
  };
  for (const char* name : {"number", "at_ns", "latency_ns"}) require(name, json::kind::int64);
  require("call", json::kind::string);
  if (line.at("call") == "create") {
    for (const char* name : {"key", "image"}) require(name, json::kind::string);
    require("request", json::kind::object);
  } else {
    require("arguments", json::kind::array);
  }
  if (!line.contains("response") && !line.contains("unanswered")) require("error", json::kind::object);
  return {line};
}

// A coroutine, so that what the operation throws at once is its error too.
asio::awaitable<json::value> run(Tape::Operation operation) {
  co_return co_await operation();
}

std::string picture_of(const Tape::Entry& entry) {
  const json::value* name = entry.line.if_contains(entry.call() == "create" ? "image" : "response");
  const bool is_picture =
      name != nullptr && name->is_string() && (entry.call() == "create" || entry.call() == "screenshot");
  return is_picture ? std::string(name->as_string()) : std::string();
}

// No name that leads out of the folder.
bool is_picture_name(std::string_view name) {
  return name.size() == 68 && name.ends_with(".png") && name.find_first_not_of("0123456789abcdef") == 64;
}

}  // namespace

json::value read_line(std::string_view text) {
  constexpr text::JsonLimits limits{64, 10'000};
  boost::system::error_code error;
  json::value value = text::read_json(text, limits, error);
  if (error) throw std::runtime_error("not JSON: " + error.message());
  return value;
}

// What is known of a call when it begins.
struct Tape::Call {
  std::int64_t number;
  runtime::Duration at;
  json::object what;
};

Tape::Tape(std::string folder, CassetteOptions options) : folder_(std::move(folder)), options_(options) {
  read();
  has_recording_ = !entries_.empty();
  must_start_over_ = mode() == CassetteMode::all;
  if (mode() == CassetteMode::none && !has_recording_) {
    throw std::runtime_error("there is no recording in " + folder_ + ": record one with another mode than none");
  }
}

void Tape::read() {
  const std::string path = folder_ + lines_name;
  std::ifstream file(path, std::ios::binary);
  std::string text;
  for (std::size_t number = 1; std::getline(file, text); ++number) {
    try {
      entries_.push_back(checked(read_line(text)));
    } catch (const std::exception& error) {
      if (mode() == CassetteMode::all) continue;  // the recording is about to be replaced
      throw std::runtime_error(path + ", line " + std::to_string(number) + " is not of a cassette: " + error.what());
    }
    const Entry& entry = entries_.back();
    if (mode() == CassetteMode::all) continue;
    last_number_ = std::max(last_number_, entry.number());
    if (entry.call() == "create") (void)next_occurrence(std::string(entry.line.at("key").as_string()));
  }
  if (file.bad() || (!file.is_open() && fs::exists(path))) throw std::runtime_error(path + " cannot be read");
  std::stable_sort(entries_.begin(), entries_.end(),
                   [](const Entry& a, const Entry& b) { return a.number() < b.number(); });
}

runtime::Duration Tape::began() const noexcept {
  return runtime::Duration(!is_replaying() ? 0 : entries_.front().line.at("at_ns").as_int64());
}

bool Tape::is_replaying() const noexcept {
  return has_recording_ && mode() != CassetteMode::all;
}

bool Tape::is_recording() const noexcept {
  return mode() == CassetteMode::all || mode() == CassetteMode::new_episodes || !has_recording_;
}

std::vector<std::string> Tape::unused() const {
  std::vector<std::string> out;
  for (const Entry& entry : entries_) {
    const bool is_mission = entry.call() == "act_loop";  // which a host need not run as one
    if (entry.used || is_mission || !is_replaying()) continue;
    const json::value* arguments = entry.line.if_contains("arguments");
    out.push_back(std::to_string(entry.number()) + " " +
                  call_text(entry.call(), arguments ? arguments->as_array() : json::array()));
  }
  return out;
}

std::int64_t Tape::next_occurrence(const std::string& key) {
  return ++occurrences_[key];
}

const Tape::Entry* Tape::find(const Question& question) {
  if (options_.by_order() && !std::exchange(has_warned_, true)) {
    log::line(spdlog::level::warn,
              "vision: %s is replayed by order: requests get the recorded answers, whatever they ask", folder_);
  }
  for (Entry& entry : entries_) {
    if (entry.used || entry.call() != "create") continue;
    if (!options_.by_order() && entry.line.at("key").as_string() != question.key) continue;
    entry.used = true;
    return &entry;
  }
  return nullptr;
}

const Tape::Entry& Tape::next(std::string_view call, const json::array& arguments) {
  const std::string asked = call_text(call, arguments);
  for (Entry& entry : entries_) {
    if (entry.used || !same_kind(entry.call(), call)) continue;
    const std::string recorded = call_text(entry.call(), entry.line.at("arguments").as_array());
    if (recorded == asked) {
      entry.used = true;
      return entry;
    }
    throw CassetteMiss(misses_.emplace_back("call " + std::to_string(entry.number()) + " in " + folder_ + " is " +
                                            recorded + ", not " + asked));
  }
  throw CassetteMiss(misses_.emplace_back("the recording in " + folder_ + " has ended before " + asked));
}

const Tape::Entry* Tape::first(std::string_view call) const {
  const auto found =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.call() == call; });
  return found == entries_.end() ? nullptr : &*found;
}

void Tape::miss(const Question& question) {
  const Entry* nearest = nullptr;
  bool same_but_picture = false;
  std::size_t asked_before = 0;
  for (const Entry& entry : entries_) {
    if (entry.call() != "create") continue;
    if (entry.line.at("key").as_string() == question.key) ++asked_before;
    if (entry.used || same_but_picture) continue;
    same_but_picture = without_picture(entry.line.at("request")) == without_picture(question.body);
    if (nearest == nullptr || same_but_picture) nearest = &entry;
  }
  std::string text = "the recording in " + folder_ + " has no such request: ";
  if (asked_before > 0) {
    text += "it was recorded " + std::to_string(asked_before) + " times and is asked once more";
  } else if (nearest == nullptr) {
    text += "all that were recorded have been asked";
  } else {
    const json::value& recorded = nearest->line.at("request");
    text += "compared with call " + std::to_string(nearest->number()) + ", ";
    text += same_but_picture                                            ? "only the picture differs; "
            : nearest->line.at("image") == json::string(question.image) ? "the picture is the same; "
                                                                        : "not only the picture differs; ";
    text += first_difference(same_but_picture ? recorded : without_picture(recorded),
                             same_but_picture ? question.body : without_picture(question.body));
  }
  throw CassetteMiss(misses_.emplace_back(text));
}

asio::awaitable<json::value> Tape::play(json::object line) {
  if (line.contains("unanswered")) {
    co_await runtime::sleep_for(runtime::to_duration(1e300));
    throw APITimeoutError("the recorded call was given up unanswered");
  }
  co_await runtime::sleep_for(runtime::Duration(line.at("latency_ns").as_int64()));
  if (const json::value* error = line.if_contains("error")) throw_recorded(error->as_object());
  co_return line.at("response");
}

asio::awaitable<json::value> Tape::record(json::object what, Operation operation) {
  const auto executor = co_await asio::this_coro::executor;
  const runtime::TimeSource& time = runtime::time_source(executor);
  last_at_ = time.wall_now();
  Call call{++last_number_, last_at_, std::move(what)};
  const runtime::Duration start = time.steady_now();
  runtime::Outcome<json::value> outcome;
  try {
    outcome = co_await runtime::try_await(run(std::move(operation)));
  } catch (const boost::system::system_error&) {  // the caller gave it up
    write(std::move(call), "unanswered", true, time.steady_now() - start);
    throw;
  }
  const runtime::Duration latency = time.steady_now() - start;
  if (outcome.error()) {
    write(std::move(call), "error", describe_error(outcome.error()), latency);
  } else {
    write(std::move(call), "response", outcome.value(), latency);
  }
  co_return std::move(outcome.value());
}

asio::awaitable<json::value> Tape::in_order(std::string call, json::array arguments, Operation operation) {
  if (is_replaying()) return play(next(call, arguments).line);
  json::object what{{"call", call}, {"arguments", std::move(arguments)}};
  return record(std::move(what), std::move(operation));
}

json::value Tape::in_order_now(std::string_view call, const std::function<json::value()>& operation) {
  if (is_replaying()) {
    const json::object& line = next(call, {}).line;
    if (const json::value* error = line.if_contains("error")) throw_recorded(error->as_object());
    return line.at("response");
  }
  Call now{++last_number_, last_at_, {{"call", call}, {"arguments", json::array()}}};
  json::value value;
  try {
    value = operation();
  } catch (...) {
    write(std::move(now), "error", describe_error(std::current_exception()), runtime::Duration::zero());
    throw;
  }
  write(std::move(now), "response", value, runtime::Duration::zero());
  return value;
}

void Tape::write(Call call, const char* ending, json::value value, runtime::Duration latency) {
  start_over();
  json::object line{{"number", call.number}};
  for (auto& member : call.what) line.insert(std::move(member));
  line["at_ns"] = call.at.count();
  line["latency_ns"] = latency.count();
  line[ending] = std::move(value);
  append_line(folder_ + lines_name, text::to_json(line) + "\n");
}

// The first call of a new recording takes away the old one.
void Tape::start_over() {
  if (!std::exchange(must_start_over_, false)) return;
  for (const Entry& entry : entries_) {
    if (const std::string name = picture_of(entry); is_picture_name(name)) fs::remove(folder_ + "/" + name);
  }
  fs::remove(folder_ + lines_name);
}

std::string Tape::store(const Bytes& picture) {
  start_over();
  std::string name = sha256(picture.view()) + ".png";
  if (!fs::exists(folder_ + "/" + name)) write_file(folder_, name, picture.view());
  return name;
}

Bytes Tape::load(std::string_view name) const {
  const std::string path = folder_ + "/" + std::string(name);
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  std::string bytes = std::move(content).str();
  if (!file || sha256(bytes) + ".png" != name) throw std::runtime_error(path + " is missing or was changed");
  return Bytes(std::move(bytes));
}

}  // namespace vision::detail
