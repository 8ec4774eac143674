#include "tests/world/fault.hpp"

#include <algorithm>
#include <stdexcept>

namespace vision::world {
namespace {

struct Row {
  std::string_view name, kinds;  // of the seams that are given it
};

// In the order of the enumeration.
constexpr Row rows[] = {
    {"none", ""},
    {"connection_error", "o"},
    {"rate_limit", "o"},
    {"server_error", "o"},
    {"bad_request", "o"},
    {"page_error", "o"},
    {"plain_error", "o"},
    {"odd_error", "o"},
    {"own_abort", "o"},
    {"call_throws", "oc"},
    {"call_throws_odd", "oc"},
    {"hang", "oFW"},
    {"stubborn", "o"},
    {"cancel_before", "octfwFWT"},
    {"cancel_during", "ot"},
    {"cancel_first", "ot"},
    {"cancel_last", "ot"},
    {"deadline_first", "o"},
    {"deadline_last", "o"},
    {"late", "o"},
    {"fails", "fwFW"},
    {"cut", "wW"},
    {"loop_ends", "octfwFWT"},
};

}  // namespace

const std::vector<Fault>& faults_of(SeamKind kind) {
  static const auto faults = [] {
    std::map<SeamKind, std::vector<Fault>> made;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
      for (const char k : rows[i].kinds) made[static_cast<SeamKind>(k)].push_back(static_cast<Fault>(i));
    }
    return made;
  }();
  return faults.at(kind);
}

std::string name_of(Fault fault) {
  return std::string(rows[static_cast<std::size_t>(fault)].name);
}

std::string to_text(const Plan& plan) {
  std::string text;
  for (const auto& [place, fault] : plan) text += (text.empty() ? "" : ",") + place + ":" + name_of(fault);
  return text.empty() ? "none" : text;
}

Plan plan_from(std::string_view text) {
  Plan plan;
  while (!text.empty() && text != "none") {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), part.size() + 1));
    const auto colon = std::min(part.find(':'), part.size());
    const auto fault = std::find_if(std::begin(rows), std::end(rows),
                                    [&](const Row& row) { return part.substr(colon) == ":" + std::string(row.name); });
    if (fault == std::end(rows)) throw std::invalid_argument("no fault reads \"" + std::string(part) + "\"");
    plan[std::string(part.substr(0, colon))] = static_cast<Fault>(fault - rows);
  }
  return plan;
}

}  // namespace vision::world
