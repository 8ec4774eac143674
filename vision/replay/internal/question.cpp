#include "vision/replay/internal/question.hpp"

#include <algorithm>

#include "vision/replay/internal/sha256.hpp"
#include "vision/replay/internal/tape.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/text/internal/utf8.hpp"

namespace vision::detail {
namespace json = boost::json;
namespace {

// A little of a text, from the place where it differs on.
std::string excerpt(std::string_view text, std::size_t from) {
  constexpr std::size_t shown = 40;
  while (from > 0 && from < text.size() && (text[from] & 0xC0) == 0x80) --from;  // the start of the character
  std::string out;
  const std::string_view rest = text.substr(std::min(from, text.size()));
  const std::string_view head = text::first_code_points(rest, shown);
  text::append_json_string(out, std::string(head) + (head.size() < rest.size() ? "..." : ""));
  return out;
}

std::string describe(const json::value& value) {
  return excerpt(value.is_string() ? value.as_string() : json::string(text::to_json(value)), 0);
}

std::string texts(const std::string& path, std::string_view recorded, std::string_view asked) {
  const auto place = std::mismatch(recorded.begin(), recorded.end(), asked.begin(), asked.end()).first;
  const auto at = static_cast<std::size_t>(place - recorded.begin());
  return path + " differs at byte " + std::to_string(at) + ": recorded " + excerpt(recorded, at) + ", asked " +
         excerpt(asked, at);
}

std::string difference(const std::string& path, const json::value& recorded, const json::value& asked) {
  if (recorded == asked) return "";
  if (recorded.is_object() && asked.is_object()) {
    const std::string prefix = path.empty() ? "" : path + ".";
    for (const auto& [name, value] : recorded.as_object()) {
      const json::value* other = asked.as_object().if_contains(name);
      if (other == nullptr) return prefix + std::string(name) + " was recorded and is not asked";
      if (auto found = difference(prefix + std::string(name), value, *other); !found.empty()) return found;
    }
    for (const auto& [name, value] : asked.as_object()) {
      if (!recorded.as_object().contains(name)) return prefix + std::string(name) + " is asked and was not recorded";
    }
  }
  if (recorded.is_array() && asked.is_array()) {
    const json::array &first = recorded.as_array(), &second = asked.as_array();
    for (std::size_t i = 0; i < std::min(first.size(), second.size()); ++i) {
      auto found = difference(path + "[" + std::to_string(i) + "]", first[i], second[i]);
      if (!found.empty()) return found;
    }
    return path + " has " + std::to_string(second.size()) + " items, recorded " + std::to_string(first.size());
  }
  if (recorded.is_string() && asked.is_string()) return texts(path, recorded.as_string(), asked.as_string());
  return path + " differs: recorded " + describe(recorded) + ", asked " + describe(asked);
}

}  // namespace

Question::Question(const MessagesRequest& request) : image(sha256(request.image().view()) + ".png") {
  std::string text(request.prefix());
  text += image;
  text += request.suffix();
  body = read_line(text);
  key = sha256(text::to_json(body));
}

std::string first_difference(const json::value& recorded, const json::value& asked) {
  return difference("", recorded, asked);
}

json::value* picture_in(json::value& body) {
  boost::system::error_code none;
  return body.find_pointer("/messages/0/content/0/source/data", none);
}

json::value without_picture(const json::value& body) {
  json::value out = body;
  if (json::value* data = picture_in(out)) *data = "";
  return out;
}

}  // namespace vision::detail
