#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/check/checklist.hpp"
#include "vision/client/http/http_options.hpp"
#include "vision/records/bytes.hpp"

namespace vision::detail::http {
struct Endpoint;
}

namespace check {

/// The endpoint as the library would use it: the same URL, key, proxy and certificates.
using Endpoint = vision::detail::http::Endpoint;

/// The endpoint of the options, or null with a failure in the list when they or the key
/// are malformed.
std::unique_ptr<Endpoint> make_endpoint(Checklist& list, const std::string& key, const vision::HttpOptions& options);

/// Whether a connection comes about: name resolution, TCP, the proxy and TLS, each
/// named. Sends no request and no key. Blocks. Returns whether it did.
bool check_connection(Checklist& list, const Endpoint& endpoint);

/// What the endpoint says to the library's request, without a model running: it is sent
/// to the token-counting endpoint, which refuses what the model would refuse. Blocks.
/// Returns the tokens of all but the picture; absent when the request was refused or
/// could not be counted.
std::optional<std::int64_t> check_model(Checklist& list, const Endpoint& endpoint, const std::string& model);

/// The smallest picture, of one pixel and one token.
vision::Bytes smallest_picture();

}  // namespace check
