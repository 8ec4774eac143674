#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace local_model {

/// The refusal of a request, in the vendor's terms.
class RequestFault : public std::runtime_error {
 public:
  RequestFault(int status, std::string type, const std::string& message)
      : std::runtime_error(message), status_(status), type_(std::move(type)) {}
  int status() const noexcept { return status_; }
  const std::string& type() const noexcept { return type_; }

 private:
  int status_;
  std::string type_;
};

/// The parts of a valid request that the model uses.
struct CheckedRequest {
  std::string model;
  std::string tool;              ///< name of the tool that the answer must call
  std::string text;              ///< all text of the last message
  std::string image;             ///< the last message's last image, decoded; empty when there is none
  std::size_t input_tokens = 0;  ///< an estimate
};

/// Validates the body of a Messages API request as the hosted API does: JSON,
/// known members only, required members and their types, roles, content blocks,
/// tools, tool choice, thinking, images (encoding, media type, limits). It also
/// requires what this model depends on: a forced tool and no streaming. Throws
/// RequestFault.
CheckedRequest check_request(std::string_view body);

}  // namespace local_model
