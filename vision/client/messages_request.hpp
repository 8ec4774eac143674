#pragma once

#include <boost/json/object.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "vision/records/bytes.hpp"

namespace vision {

/// One request to the Messages API. Its JSON text is `prefix()`, the base64 text
/// of `image()`, `suffix()`: a transport streams the three and never holds the
/// whole. A value; copies share the image and the prefix.
class MessagesRequest {
 public:
  /// `prefix`, which must not be null, is `request_prefix(model)`, rendered once per
  /// model by the caller.
  MessagesRequest(std::string model, std::shared_ptr<const std::string> prefix, Bytes image,
                  std::string_view user_text);

  /// The identifier of the model that is asked.
  const std::string& model() const noexcept { return model_; }
  /// The PNG, not yet base64.
  const Bytes& image() const noexcept { return image_; }
  ///@{
  /// The JSON text before and after the base64 text. Valid as long as the request.
  std::string_view prefix() const noexcept { return *prefix_; }
  std::string_view suffix() const noexcept { return suffix_; }
  ///@}

  /// The whole request as one JSON text, for transports that cannot stream.
  std::string body() const;

 private:
  std::string model_;
  std::shared_ptr<const std::string> prefix_;
  Bytes image_;
  std::string suffix_;
};

/// The request's JSON text up to the image data: model, max_tokens, thinking,
/// system, tools, tool_choice and the beginning of messages.
std::string request_prefix(std::string_view model);

}  // namespace vision
