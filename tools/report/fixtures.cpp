#include "tools/report/fixtures.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "tools/report/byte_source.hpp"
#include "vision/text/internal/numbers.hpp"

namespace report {
namespace {

namespace fs = std::filesystem;

// The longest that a picture waits for the disk before its question is asked, and
// that an agent can have been at work when the screenshot was there.
constexpr double storing_s = 0.25, shooting_s = 3;
// How far back to look when an agent's failure hides when it began.
constexpr double longest_agent_s = 600;

std::string run_name(const Moment& moment) {
  return moment.run && !moment.run->empty() ? *moment.run : "run";
}

std::string key_of(const std::string& site, const std::string& run) {
  return site + '/' + run;
}

std::string key_of(const Moment& moment) {
  return key_of(moment.site, run_name(moment));
}

}  // namespace

StoredBetween stored_between(const Moment& moment) {
  const double asked_from = static_cast<double>(moment.ts) - moment.latency_ms / 1000;
  double from = asked_from, until = asked_from + 1;
  if (moment.agent_failed) {
    from = static_cast<double>(moment.ts) - longest_agent_s;
  } else if (moment.agent_latency_ms && *moment.agent_latency_ms > moment.latency_ms) {
    from = static_cast<double>(moment.ts) - *moment.agent_latency_ms / 1000;
    until = std::min(until, from + 1 + shooting_s);
  }
  return {static_cast<std::int64_t>(std::floor(from - storing_s)), static_cast<std::int64_t>(std::floor(until)),
          moment.agent_failed};
}

Fixtures::Fixtures(const std::string& folder) : folder_(folder) {
  std::error_code error;
  for (fs::directory_iterator site(folder, error), end; !error && site != end; site.increment(error)) {
    std::error_code unreadable;
    for (fs::directory_iterator file(site->path(), unreadable); !unreadable && file != end;
         file.increment(unreadable)) {
      add(site->path().filename().string(), file->path().filename().string());
    }
  }
  if (error) throw InputError(folder + ": " + error.message());
  for (auto& [key, list] : fixtures_) std::sort(list.begin(), list.end());
}

void Fixtures::add(const std::string& site, const std::string& file_name) {
  constexpr std::string_view ending = ".png";
  const std::size_t at = file_name.rfind('_');
  if (at == file_name.npos || !file_name.ends_with(ending)) return;
  const auto second = vision::text::parse_integer(file_name.substr(at + 1, file_name.size() - ending.size() - at - 1));
  if (!second) return;
  fixtures_[key_of(site, file_name.substr(0, at))].push_back({*second});
  size_ += 1;
}

Fixtures::Range Fixtures::within(const std::string& key, StoredBetween window) const {
  const auto found = fixtures_.find(key);
  if (found == fixtures_.end()) return {nullptr, nullptr};
  const auto& list = found->second;
  const auto begin = std::lower_bound(list.begin(), list.end(), Fixture{window.first});
  const auto end = std::upper_bound(begin, list.end(), Fixture{window.last});
  return {list.data() + (begin - list.begin()), list.data() + (end - list.begin())};
}

std::string Fixtures::path(const Moment& moment, const Fixture& fixture) const {
  return folder_ + "/" + moment.site + "/" + run_name(moment) + "_" + std::to_string(fixture.second) + ".png";
}

void Fixtures::claim(const Moment& moment) {
  const StoredBetween window = stored_between(moment);
  const Range range = within(key_of(moment), window);
  for (const Fixture* one = range.begin; one != range.end; ++one) (window.vague ? one->vague_claims : one->claims) += 1;
}

Picture Fixtures::find(const Moment& moment) const {
  const StoredBetween window = stored_between(moment);
  const Range range = within(key_of(moment), window);
  std::vector<const Fixture*> fitting;
  for (const Fixture* one = range.begin; one != range.end; ++one) {
    if (!window.vague || one->claims == 0) fitting.push_back(one);
  }
  if (fitting.empty()) return {};
  const std::int64_t wanted_by = window.vague ? fitting.front()->vague_claims : fitting.front()->claims;
  if (fitting.size() > 1 || wanted_by > 1) return {Picture::State::ambiguous, {}};
  return {Picture::State::found, path(moment, *fitting.front())};
}

std::vector<Picture> Fixtures::find(const Mission& mission) const {
  std::vector<Picture> out;
  if (mission.steps.empty()) return out;
  const auto& steps = mission.steps;
  const Range all =
      within(key_of(steps.front()), {stored_between(steps.front()).first, stored_between(steps.back()).last});
  bool one_each = all.end - all.begin == static_cast<std::ptrdiff_t>(steps.size());
  for (std::size_t i = 0; one_each && i < steps.size(); ++i) {
    const auto window = stored_between(steps[i]);
    one_each = window.first <= all.begin[i].second && all.begin[i].second <= window.last;
  }
  for (std::size_t i = 0; i < steps.size(); ++i) {
    out.push_back(one_each ? Picture{Picture::State::found, path(steps[i], all.begin[i])} : find(steps[i]));
  }
  return out;
}

}  // namespace report
