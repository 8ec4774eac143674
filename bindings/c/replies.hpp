#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>
#include <exception>
#include <functional>
#include <string>
#include <variant>

#include "bindings/c/vision.h"
#include "vision/records/bytes.hpp"

namespace vision::c {

/// What the host answered: nothing yet, a JSON text, an image, an error.
using Answer = std::variant<std::monostate, std::string, Bytes, std::exception_ptr>;

/// Calls a function of the host's with a reply.
using HostCall = std::function<void(vision_reply)>;

///@{
/// Calls the host and waits for its answer. Throws the host's error, and
/// std::invalid_argument, which names the function, for an answer of another kind.
/// Cancellation (terminal) ends the wait at once; an answer is dropped from then on.
boost::asio::awaitable<boost::json::value> value_from_host(std::string function, HostCall call);
boost::asio::awaitable<Bytes> image_from_host(std::string function, HostCall call);
///@}

/// The same for a host that answers before it returns; else nothing is the answer.
Answer answer_at_once(const HostCall& call);

/// The host's image: taken over, or copied.
Bytes take_image(const vision_image& image);

/// An image for the host, which is to release it.
vision_image give_image(Bytes image);

}  // namespace vision::c
