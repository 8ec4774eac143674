// The request comes out the same however it is read, and its JSON holds what went
// in.
#include <boost/json/parse.hpp>
#include <memory>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "fuzz/reference_utf8.hpp"
#include "vision/client/http/body_reader.hpp"

namespace {

using vision::fuzz::require;

std::string decode_base64(std::string_view text) {
  constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  require(text.size() % 4 == 0, "base64 comes in groups of four");
  std::string out;
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto digit = digits.find(text[i]);
    require(digit != digits.npos || (text[i] == '=' && i + 2 >= text.size()), "base64 has its digits only");
    bits = bits << 6 | static_cast<std::uint32_t>(digit == digits.npos ? 0 : digit);
    if (i % 4 != 3) continue;
    for (int shift = 16; shift >= 0; shift -= 8) out += static_cast<char>(bits >> shift & 0xFF);
  }
  const auto padding = text.size() - std::min(text.find('='), text.size());
  out.resize(out.size() - padding);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const std::string_view rooms = input.text();
  const std::string model(input.until('\n'));
  const std::string task(input.until('\n'));
  const std::string image(input.rest());
  const auto prefix = std::make_shared<const std::string>(vision::request_prefix(model));
  const vision::MessagesRequest request(model, prefix, vision::Bytes(std::string(image)), task);

  const std::string body = request.body();
  const auto json = boost::json::parse(body);
  const auto& content = json.at("messages").at(0).at("content");
  require(json.at("model").as_string() == vision::fuzz::well_formed(model), "the model is named");
  require(decode_base64(content.at(0).at("source").at("data").as_string()) == image, "the image is whole");
  require(content.at(1).at("text").as_string() == vision::fuzz::well_formed(task), "the text is whole");

  vision::http::BodyReader reader(request);
  require(reader.size() == body.size(), "the size is told beforehand");
  const std::string_view turns = rooms.empty() ? std::string_view("\x07") : rooms;
  std::size_t at = 0;
  for (std::size_t turn = 0; at < body.size(); ++turn) {
    const std::size_t room = static_cast<unsigned char>(turns[turn % turns.size()]) * 5u + 1;
    const std::unique_ptr<char[]> out(new char[room]);  // its end is where the sanitizer looks
    const std::size_t count = reader.read(out.get(), room);
    require(count == std::min(room, body.size() - at), "as much as there is room for");
    require(std::string_view(out.get(), count) == std::string_view(body).substr(at, count), "every piece fits");
    at += count;
    if (turn % 16 == 15) require(reader.seek(at) && !reader.seek(body.size() + 1), "seeks within the text only");
  }
  char more = 0;
  require(reader.read(&more, 1) == 0, "nothing follows the end");
  return 0;
}
