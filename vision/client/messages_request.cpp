#include "vision/client/messages_request.hpp"

#include <boost/json/array.hpp>
#include <cassert>

#include "vision/client/internal/system_prompt.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {

MessagesRequest::MessagesRequest(std::string model, std::shared_ptr<const std::string> prefix, Bytes image,
                                 std::string_view user_text)
    : model_(std::move(model)), prefix_(std::move(prefix)), image_(std::move(image)) {
  assert(prefix_);
  suffix_.reserve(user_text.size() + user_text.size() / 16 + 64);  // a line's end takes two characters
  suffix_ = "\"}}, {\"type\": \"text\", \"text\": ";
  text::append_json_string(suffix_, user_text);
  suffix_ += "}]}]}";
}

std::string request_prefix(std::string_view model) {
  boost::json::object head;
  head["model"] = model;
  head["max_tokens"] = 512;
  head["thinking"] = {{"type", "disabled"}};
  head["system"] = detail::SYSTEM_PROMPT;
  head["tools"] = boost::json::array{detail::PROPOSE_ACTION_TOOL()};
  head["tool_choice"] = {{"type", "tool"}, {"name", "propose_action"}};
  std::string prefix = text::to_json(head);
  prefix.pop_back();  // the closing brace: messages follow
  prefix +=
      ", \"messages\": [{\"role\": \"user\", \"content\": [{\"type\": \"image\", "
      "\"source\": {\"type\": \"base64\", \"media_type\": \"image/png\", \"data\": \"";
  return prefix;
}

std::string MessagesRequest::body() const {
  std::string body = *prefix_;
  body += _b64(image_.view());
  body += suffix_;
  return body;
}

}  // namespace vision
