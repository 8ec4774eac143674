#include "tools/report/labels.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <fstream>

#include "tools/report/byte_source.hpp"
#include "tools/report/record.hpp"

namespace report {
namespace {

void make_key(std::string& key, const std::optional<std::string_view>& run, std::string_view site,
              std::string_view ts) {
  key.assign(run ? "+" : "-").append(run.value_or("")).push_back('\0');
  key.append(site).push_back('\0');
  key.append(ts);
}

Labels::Decision decision_of(std::string_view word) {
  if (word == "agree") return Labels::Decision::agree;
  if (word == "disagree") return Labels::Decision::disagree;
  if (word == "skip") return Labels::Decision::skip;
  throw std::runtime_error("label is \"" + std::string(word) + "\", not agree, disagree or skip");
}

std::string_view member(const boost::json::object& label, const char* name) {
  const auto* value = label.if_contains(name);
  if (value == nullptr || !value->is_string()) throw std::runtime_error(std::string("no text \"") + name + "\"");
  return value->get_string();
}

}  // namespace

void Labels::add(std::string_view line) {
  boost::json::error_code error;
  const auto value = boost::json::parse(line, error);
  if (error || !value.is_object()) throw std::runtime_error("not a JSON object");
  const auto& label = value.get_object();
  std::optional<std::string_view> run;
  if (const auto* given = label.if_contains("run_id"); given && !given->is_null()) run = member(label, "run_id");
  const std::string_view ts = member(label, "ts");
  if (!parse_timestamp(ts))
    throw std::runtime_error("ts is \"" + std::string(ts) + "\", not like 2026-11-16T19:05:00Z");
  const Decision decision = decision_of(member(label, "label"));
  make_key(key_, run, member(label, "hotspot_id"), ts);
  labels_[key_].decision = decision;
}

void Labels::load(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw InputError(path + ": cannot be read");
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    try {
      if (!line.empty()) add(line);
    } catch (const std::runtime_error& error) {
      throw InputError(path + ":" + std::to_string(number) + ": not a label: " + error.what());
    }
  }
}

Labels::Label* Labels::find(const std::optional<std::string_view>& run, std::string_view site, std::string_view ts) {
  if (labels_.empty()) return nullptr;
  make_key(key_, run, site, ts);
  const auto found = labels_.find(key_);
  if (found == labels_.end()) return nullptr;
  found->second.uses += 1;
  return &found->second;
}

std::int64_t Labels::unused() const {
  return std::count_if(labels_.begin(), labels_.end(), [](const auto& entry) { return entry.second.uses == 0; });
}

std::int64_t Labels::ambiguous() const {
  return std::count_if(labels_.begin(), labels_.end(), [](const auto& entry) { return entry.second.uses > 1; });
}

}  // namespace report
