#include "tools/report/prices.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <cmath>
#include <fstream>
#include <sstream>

#include "tools/report/built_in.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/record.hpp"

namespace report {
namespace {

constexpr double million = 1e6;

double price(const boost::json::object& entry, const std::string& model, const char* name) {
  const auto* value = entry.if_contains(name);
  const double out = value != nullptr && value->is_number() ? value->to_number<double>() : NAN;
  if (!(out >= 0)) throw std::runtime_error("\"" + model + "\" has no " + name + " price of 0 or more");
  return out;
}

std::int64_t limit(const boost::json::object& entry, const std::string& model, const char* name, std::int64_t usual) {
  const auto* value = entry.if_contains(name);
  if (value == nullptr) return usual;
  constexpr std::int64_t largest = 100'000;
  const std::int64_t out = value->is_int64() ? value->get_int64() : 0;
  if (out < 1 || out > largest) {
    throw std::runtime_error("\"" + model + "\" has a " + name + " that is not an integer from 1 to 100000");
  }
  return out;
}

std::string_view without_date(std::string_view model) {
  constexpr std::size_t date = 9;  // "-20251001"
  if (model.size() <= date || model[model.size() - date] != '-') return model;
  const std::string_view digits = model.substr(model.size() - date + 1);
  return digits.find_first_not_of("0123456789") == digits.npos ? model.substr(0, model.size() - date) : model;
}

}  // namespace

Prices Prices::parse(std::string_view text, const std::string& source) {
  Prices out;
  out.source_ = source;
  boost::json::error_code error;
  const auto table = boost::json::parse(text, error);
  const auto* object = table.if_object();
  const auto* models = object ? object->if_contains("models") : nullptr;
  const auto* as_of = object ? object->if_contains("as_of") : nullptr;
  if (models == nullptr || !models->is_object()) throw std::runtime_error("no JSON object with \"models\"");
  if (as_of == nullptr || !as_of->is_string()) throw std::runtime_error("no text \"as_of\", the date of the prices");
  out.as_of_ = as_of->get_string();
  if (!parse_timestamp(out.as_of_ + "T00:00:00Z")) {
    throw std::runtime_error("as_of is \"" + out.as_of_ + "\", not a date like 2026-11-24");
  }
  for (const auto& [name, value] : models->get_object()) {
    const std::string model(name);
    if (!value.is_object()) throw std::runtime_error("\"" + model + "\" is not an object with input and output");
    const auto& entry = value.get_object();
    const PictureLimits usual;
    out.models_[model] = {
        price(entry, model, "input"),
        price(entry, model, "output"),
        {limit(entry, model, "longest_edge", usual.longest_edge), limit(entry, model, "picture_tokens", usual.tokens)}};
  }
  return out;
}

Prices Prices::built_in() {
  return parse(built_in::prices, "built in");
}

Prices Prices::load(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  if (!(file && text << file.rdbuf())) throw InputError(path + ": cannot be read");
  try {
    return parse(text.str(), path);
  } catch (const std::runtime_error& error) {
    throw InputError(path + ": not a price table: " + error.what());
  }
}

const Prices::Model* Prices::find(std::string_view model) const {
  auto found = models_.find(model);
  if (found == models_.end()) found = models_.find(without_date(model));
  return found == models_.end() ? nullptr : &found->second;
}

std::optional<double> Prices::cost(std::string_view model, const Spend& spend) const {
  const Model* const entry = find(model);
  if (!entry) return std::nullopt;
  return (static_cast<double>(spend.input_tokens) * entry->input +
          static_cast<double>(spend.output_tokens) * entry->output) /
         million;
}

std::optional<PictureLimits> Prices::picture_limits(std::string_view model) const {
  const Model* const entry = find(model);
  return entry ? std::optional(entry->picture) : std::nullopt;
}

}  // namespace report
