// A browser's URL is taken apart into what a request can be made of, or refused
// with one harmless line.
#include <algorithm>
#include <stdexcept>

#include "chromium/endpoint.hpp"
#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/text/utf8.hpp"

namespace {

using namespace vision::chromium;
using vision::fuzz::require;

bool can_be_sent(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(vision::fuzz::Input(data, size).rest());
  try {
    const Endpoint endpoint = parse_endpoint(url);
    require(endpoint.scheme == "http" || endpoint.scheme == "ws", "one of two schemes");
    require(can_be_sent(endpoint.authority()) && can_be_sent(endpoint.path), "nothing can end a header");
    require(endpoint.path.starts_with('/'), "a path is absolute");
    const int port = std::stoi(endpoint.port);
    require(port > 0 && port < 65536, "a port is one");
    const Endpoint again = parse_endpoint(endpoint.scheme + "://" + endpoint.authority() + endpoint.path);
    require(again.host == endpoint.host && again.port == endpoint.port && again.path == endpoint.path,
            "its own words mean the same");
    if (is_loopback(endpoint.host)) require(endpoint.host.find_first_of("@/?#") == std::string::npos, "no other host");
  } catch (const std::invalid_argument& e) {
    require(vision::text::one_line(e.what()) == e.what(), "an error is one harmless line");
  }
  return 0;
}
