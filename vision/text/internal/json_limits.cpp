#include "vision/text/internal/json_limits.hpp"

#include <vector>

namespace vision::text {
namespace {

// The place of the quote that ends the string which begins at `begin`.
std::size_t end_of_string(std::string_view json, std::size_t begin) {
  std::size_t at = begin + 1;
  while (at < json.size() && json[at] != '"') at += json[at] == '\\' ? 2 : 1;
  return at;
}

}  // namespace

bool has_crowded_object(std::string_view json, std::size_t most) {
  struct Level {
    bool is_object;
    std::size_t commas;
  };
  std::vector<Level> open;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    if (c == '"') at = end_of_string(json, at);
    if (c == '{' || c == '[') open.push_back({c == '{', 0});
    if (open.empty()) continue;
    if (c == '}' || c == ']') open.pop_back();
    if (c == ',' && ++open.back().commas >= most && open.back().is_object) return true;
  }
  return false;
}

}  // namespace vision::text
