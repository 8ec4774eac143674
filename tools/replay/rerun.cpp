#include "tools/replay/rerun.hpp"

#include <boost/json/value_to.hpp>
#include <memory>
#include <stdexcept>

#include "vision/replay/cassette_client.hpp"
#include "vision/replay/cassette_page.hpp"
#include "vision/replay/internal/mission_note.hpp"
#include "vision/replay/internal/tape.hpp"
#include "vision/replay/record_mission.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/testing/virtual_time.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/wirein/internal/records.hpp"

namespace replay {
namespace json = boost::json;
namespace {

using Entry = vision::detail::Tape::Entry;

// A client may have had a default model of its own: then requests name a third one.
std::string default_model(const vision::detail::Tape& tape, const std::string& light, const std::string& heavy) {
  for (const Entry& entry : tape.entries()) {
    if (entry.call() != "create") continue;
    const auto model = json::value_to<std::string>(entry.line.at("request").at("model"));
    if (model != heavy) return model;
  }
  return light;
}

// What the recording took differs a little from what it takes to replay it.
json::value comparable(json::object verdict) {
  verdict.erase("latency_ms");
  return verdict;
}

void compare_verdict(Rerun& out, const Entry& mission) {
  const json::value* recorded = mission.line.if_contains("response");
  if (recorded == nullptr) {
    const json::value* error = mission.line.if_contains("error");
    const std::string why = error ? json::value_to<std::string>(error->at("message")) : "it was cancelled";
    out.differences.push_back("the recorded mission had no verdict: " + why);
    return;
  }
  auto difference = vision::detail::first_difference(comparable(recorded->as_object()),
                                                     comparable(vision::_observe_action_record(out.verdict)));
  if (!difference.empty()) out.differences.push_back("the verdict: " + std::move(difference));
}

}  // namespace

Rerun rerun(const std::string& folder) {
  const auto options = vision::CassetteOptions().mode(vision::CassetteMode::none);
  const auto cassette = std::make_shared<vision::Cassette>(folder, options);
  const Entry* mission = cassette->_tape().first("act_loop");
  if (mission == nullptr) {
    throw std::runtime_error(folder + " holds no mission that was recorded with record_mission; --model works without");
  }
  const json::object& note = mission->line.at("arguments").at(0).as_object();
  const auto light = json::value_to<std::string>(note.at("light_model"));
  const auto heavy = json::value_to<std::string>(note.at("heavy_model"));
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(light, heavy));

  vision::test::VirtualLoop loop(cassette->began());
  vision::CassettePage page(cassette);
  const auto client_options =
      vision::VisionClientOptions().default_model(default_model(cassette->_tape(), light, heavy));
  vision::VisionClient client(std::make_shared<vision::CassetteClient>(cassette), client_options);
  vision::ActLoopOptions loop_options = vision::detail::options_of(note);
  loop_options.vision(client);

  Rerun out;
  out.site = loop_options.hotspot_id();
  out.run = loop_options.run_id().value_or("");
  out.calls = cassette->_tape().entries().size();
  out.verdict = loop.run(vision::record_mission(cassette, page, std::move(loop_options)));
  out.seconds = loop.seconds();
  out.differences = cassette->misses();
  for (const auto& call : cassette->unused()) out.differences.push_back("recorded and not done again: call " + call);
  compare_verdict(out, *mission);
  return out;
}

}  // namespace replay
