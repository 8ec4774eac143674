#include "examples/local_model/request_check.hpp"

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <initializer_list>
#include <set>

#include "examples/local_model/image_block.hpp"

namespace local_model {
namespace {

namespace json = boost::json;

[[noreturn]] void refuse(const std::string& message) {
  throw RequestFault(400, "invalid_request_error", message);
}

[[noreturn]] void refuse(const std::string& path, const char* message) {
  refuse(path + ": " + message);
}

const json::object& object_at(const json::value& value, const std::string& path) {
  if (!value.is_object()) refuse(path, "Input should be an object");
  return value.get_object();
}

const json::value& member(const json::object& object, const std::string& path, std::string_view name) {
  const json::value* value = object.if_contains(name);
  if (value == nullptr) refuse(path + std::string(name), "Field required");
  return *value;
}

std::string text_member(const json::object& object, const std::string& path, std::string_view name) {
  const json::value& value = member(object, path, name);
  if (!value.is_string()) refuse(path + std::string(name), "Input should be a valid string");
  if (value.get_string().empty()) refuse(path + std::string(name), "String should have at least 1 character");
  return std::string(value.get_string());
}

void only_members(const json::object& object, const std::string& path, std::initializer_list<std::string_view> known) {
  for (const auto& entry : object) {
    if (std::find(known.begin(), known.end(), std::string_view(entry.key())) == known.end()) {
      refuse(path + std::string(entry.key()), "Extra inputs are not permitted");
    }
  }
}

bool is_true(const json::value* value) {
  return value != nullptr && value->is_bool() && value->get_bool();
}

class Check {
 public:
  explicit Check(const json::object& request) : request_(request) {}

  CheckedRequest run() {
    only_members(request_, "",
                 {"model", "max_tokens", "messages", "system", "tools", "tool_choice", "thinking", "metadata",
                  "stop_sequences", "stream", "temperature", "top_k", "top_p", "service_tier"});
    result_.model = text_member(request_, "", "model");
    check_max_tokens();
    if (is_true(request_.if_contains("stream"))) refuse("stream", "This local model does not stream");
    if (const auto* system = request_.if_contains("system")) check_text_or_blocks(*system, "system");
    check_tools();
    check_tool_choice();
    check_thinking();
    check_messages();
    result_.input_tokens += characters_ / 4;
    return std::move(result_);
  }

 private:
  void check_max_tokens() const {
    const json::value& value = member(request_, "", "max_tokens");
    if (!value.is_int64() && !value.is_uint64()) refuse("max_tokens", "Input should be a valid integer");
    if (value.is_int64() && value.get_int64() < 1) refuse("max_tokens", "Input should be greater than or equal to 1");
  }

  // A text, or a list of blocks. Only messages may contain images.
  void check_text_or_blocks(const json::value& value, const std::string& path, bool in_message = false) {
    if (value.is_string()) {
      add_text(value.get_string(), path, in_message);
      return;
    }
    if (!value.is_array()) refuse(path, "Input should be a valid string or list");
    if (in_message && value.get_array().empty()) refuse(path, "must have non-empty content");
    for (std::size_t i = 0; i < value.get_array().size(); ++i) {
      const std::string place = path + "." + std::to_string(i);
      const json::object& block = object_at(value.get_array()[i], place);
      const std::string type = text_member(block, place + ".", "type");
      if (type == "text") {
        only_members(block, place + ".text.", {"type", "text", "cache_control", "citations"});
        const json::value& text = member(block, place + ".text.", "text");
        if (!text.is_string()) refuse(place + ".text.text", "Input should be a valid string");
        add_text(text.get_string(), place, in_message);
      } else if (type == "image" && in_message) {
        only_members(block, place + ".image.", {"type", "source", "cache_control"});
        add_image(object_at(member(block, place + ".image.", "source"), place + ".image.source"),
                  place + ".image.source.");
      } else {
        refuse(place + ".type", in_message ? "Input should be 'text' or 'image'" : "Input should be 'text'");
      }
    }
  }

  void add_text(std::string_view text, const std::string& path, bool in_message) {
    if (text.empty()) refuse(path, "text content blocks must be non-empty");
    characters_ += text.size();
    if (!in_message) return;
    if (!result_.text.empty()) result_.text += '\n';
    result_.text += text;
  }

  void add_image(const json::object& source, const std::string& path) {
    only_members(source, path, {"type", "media_type", "data"});
    if (text_member(source, path, "type") != "base64") refuse(path + "type", "Input should be 'base64'");
    const std::string media_type = text_member(source, path, "media_type");
    const json::value& data = member(source, path, "data");
    if (!data.is_string()) refuse(path + "data", "Input should be a valid string");
    try {
      ImageBlock image = read_image_block(media_type, data.get_string());
      result_.image = std::move(image.bytes);
      result_.input_tokens += image.tokens;
    } catch (const std::invalid_argument& error) {
      refuse(path + "data", error.what());
    }
  }

  void check_messages() {
    const json::value& messages = member(request_, "", "messages");
    if (!messages.is_array()) refuse("messages", "Input should be a valid list");
    if (messages.get_array().empty()) refuse("messages", "at least one message is required");
    for (std::size_t i = 0; i < messages.get_array().size(); ++i) {
      const std::string path = "messages." + std::to_string(i);
      const json::object& message = object_at(messages.get_array()[i], path);
      only_members(message, path + ".", {"role", "content"});
      const std::string role = text_member(message, path + ".", "role");
      if (role != "user" && role != "assistant") refuse(path + ".role", "Input should be 'user' or 'assistant'");
      if (i == 0 && role != "user") refuse("messages", "first message must use the \"user\" role");
      result_.text.clear();
      result_.image.clear();
      check_text_or_blocks(member(message, path + ".", "content"), path + ".content", true);
    }
  }

  void check_tools() {
    const json::value* tools = request_.if_contains("tools");
    if (tools == nullptr) return;
    if (!tools->is_array()) refuse("tools", "Input should be a valid list");
    for (std::size_t i = 0; i < tools->get_array().size(); ++i) {
      const std::string path = "tools." + std::to_string(i) + ".";
      const json::object& tool = object_at(tools->get_array()[i], path + "custom");
      only_members(tool, path, {"type", "name", "description", "input_schema", "cache_control"});
      const std::string name = text_member(tool, path, "name");
      if (!is_tool_name(name)) refuse(path + "name", "String should match pattern '^[a-zA-Z0-9_-]{1,64}$'");
      if (!tools_.insert(name).second) refuse("tools", "Tool names must be unique.");
      const json::object& schema = object_at(member(tool, path, "input_schema"), path + "input_schema");
      if (text_member(schema, path + "input_schema.", "type") != "object") {
        refuse(path + "input_schema.type", "Input should be 'object'");
      }
      if (tool.contains("description")) text_member(tool, path, "description");
    }
    characters_ += json::serialize(*tools).size();
  }

  static bool is_tool_name(std::string_view name) {
    constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return name.size() <= 64 && name.find_first_not_of(allowed) == std::string_view::npos;
  }

  void check_tool_choice() {
    const json::value* value = request_.if_contains("tool_choice");
    if (value == nullptr) refuse("tool_choice", "This local model answers only through a forced tool");
    const json::object& choice = object_at(*value, "tool_choice");
    only_members(choice, "tool_choice.", {"type", "name", "disable_parallel_tool_use"});
    if (text_member(choice, "tool_choice.", "type") != "tool") {
      refuse("tool_choice.type", "This local model answers only through a forced tool, type 'tool'");
    }
    result_.tool = text_member(choice, "tool_choice.", "name");
    if (tools_.count(result_.tool) == 0) {
      refuse("tool_choice: Tool '" + result_.tool + "' not found in provided tools");
    }
  }

  void check_thinking() const {
    const json::value* value = request_.if_contains("thinking");
    if (value == nullptr) return;
    const std::string type = text_member(object_at(*value, "thinking"), "thinking.", "type");
    if (type != "disabled") refuse("Thinking may not be enabled when tool_choice forces tool use.");
    only_members(value->get_object(), "thinking.disabled.", {"type"});
  }

  const json::object& request_;
  CheckedRequest result_;
  std::set<std::string> tools_;
  std::size_t characters_ = 0;
};

}  // namespace

CheckedRequest check_request(std::string_view body) {
  boost::system::error_code error;
  const json::value request = json::parse({body.data(), body.size()}, error);
  if (error) refuse("The request body is not valid JSON: " + error.message());
  if (!request.is_object()) refuse("The request body is not a JSON object");
  return Check(request.get_object()).run();
}

}  // namespace local_model
