#include "chromium/protocol/message.hpp"

#include <charconv>

#include "chromium/errors.hpp"
#include "vision/text/internal/json_limits.hpp"
#include "vision/text/internal/json_reader.hpp"

namespace vision::chromium {
namespace json = boost::json;

json::value parse_message(std::string_view text) {
  constexpr std::size_t max_size = 8u << 20, max_members = 1000;
  if (text.size() > max_size) throw BrowserError("the browser sent a message above 8 MiB");
  if (text::has_crowded_object(text, max_members)) {
    throw BrowserError("the browser sent an object of more than 1000 members");
  }
  boost::system::error_code error;
  json::value out = text::read_json(text, error);
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
