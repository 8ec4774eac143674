#include "chromium/protocol/message.hpp"

#include <charconv>

#include "chromium/errors.hpp"
#include "vision/text/internal/json_limits.hpp"
#include "vision/text/internal/json_reader.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

// What a page may make us allocate: its values come through here, and a hostile page
// chooses them. Pictures, which are larger, do not.
constexpr std::size_t max_parsed_size = 8u << 20;
constexpr std::size_t max_members = 1000;
constexpr std::size_t max_depth = 256;

}  // namespace

json::value parse_message(std::string_view text) {
  if (text.size() > max_parsed_size) throw BrowserError("the browser sent a message larger than 8 MiB");
  if (text::has_crowded_object(text, max_members)) {
    throw BrowserError("the browser sent an object with more than 1000 members");
  }
  boost::system::error_code error;
  json::value out = text::read_javascript(text, {max_depth, max_members}, error);
  if (error) throw BrowserError("unreadable message from the browser: " + error.message());
  return out;
}

std::optional<std::uint64_t> leading_id(std::string_view text) {
  constexpr std::string_view start = "{\"id\":";
  std::uint64_t id = 0;
  if (!text.starts_with(start)) return std::nullopt;
  const auto [end, error] = std::from_chars(text.data() + start.size(), text.data() + text.size(), id);
  if (error != std::errc()) return std::nullopt;
  return id;
}

}  // namespace vision::chromium
