#include "tests/world/fault.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>

namespace vision::world {
namespace {

using enum Fault;

constexpr std::array<std::string_view, 22> names = {"none",
                                                    "connection_error",
                                                    "rate_limit",
                                                    "server_error",
                                                    "bad_request",
                                                    "page_error",
                                                    "plain_error",
                                                    "odd_error",
                                                    "own_abort",
                                                    "call_throws",
                                                    "call_throws_odd",
                                                    "hang",
                                                    "stubborn",
                                                    "cancel_before",
                                                    "cancel_during",
                                                    "cancel_first",
                                                    "cancel_last",
                                                    "deadline_first",
                                                    "deadline_last",
                                                    "late",
                                                    "fails",
                                                    "cut"};

constexpr Fault of_operation[] = {
    connection_error, rate_limit,  server_error,    bad_request,   page_error, plain_error,   odd_error,
    own_abort,        call_throws, call_throws_odd, hang,          stubborn,   cancel_before, cancel_during,
    cancel_first,     cancel_last, deadline_first,  deadline_last, late};
constexpr Fault of_call[] = {call_throws, call_throws_odd, cancel_before};
constexpr Fault of_file[] = {fails, cancel_before};
constexpr Fault of_worker_file[] = {fails, cancel_before, hang};
constexpr Fault of_write[] = {fails, cut, cancel_before};
constexpr Fault of_worker_write[] = {fails, cut, cancel_before, hang};
constexpr Fault of_timer[] = {cancel_before, cancel_during, cancel_first, cancel_last};

}  // namespace

std::span<const Fault> faults_of(SeamKind kind) {
  switch (kind) {
    case SeamKind::operation: return of_operation;
    case SeamKind::call: return of_call;
    case SeamKind::file: return of_file;
    case SeamKind::worker_file: return of_worker_file;
    case SeamKind::write: return of_write;
    case SeamKind::worker_write: return of_worker_write;
    case SeamKind::timer: return of_timer;
  }
  return {};
}

std::string_view name_of(Fault fault) {
  return names.at(static_cast<std::size_t>(fault));
}

Fault fault_named(std::string_view name) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) throw std::invalid_argument("no fault is named \"" + std::string(name) + "\"");
  return static_cast<Fault>(found - names.begin());
}

std::string to_text(const Plan& plan) {
  std::string text;
  for (const auto& [seam, fault] : plan) {
    if (!text.empty()) text += ',';
    text += "seam" + std::to_string(seam) + ":" + std::string(name_of(fault));
  }
  return text.empty() ? "none" : text;
}

Plan plan_from(std::string_view text) {
  Plan plan;
  while (!text.empty() && text != "none") {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), part.size() + 1));
    const auto colon = part.find(':');
    int seam = -1;
    if (part.starts_with("seam") && colon != part.npos) std::from_chars(part.data() + 4, part.data() + colon, seam);
    if (seam < 0) throw std::invalid_argument("no fault reads \"" + std::string(part) + "\"; like seam12:hang");
    plan[seam] = fault_named(part.substr(colon + 1));
  }
  return plan;
}

}  // namespace vision::world
