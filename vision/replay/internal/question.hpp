#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <string>

#include "vision/client/messages_request.hpp"

/// How requests are told apart.
namespace vision::detail {

/// A request as a cassette keeps it.
struct Question {
  explicit Question(const MessagesRequest& request);

  std::string image;        ///< the file name of the picture: its SHA-256 and ".png"
  std::string key;          ///< SHA-256 of `body`
  boost::json::value body;  ///< with `image` in place of the picture's data
};

/// The first member in which two JSON values differ, as a path with both values:
/// `messages[0].content[1].text differs at byte 12: recorded "...", asked "..."`. Empty when
/// they are equal.
std::string first_difference(const boost::json::value& recorded, const boost::json::value& asked);

/// The body with the picture's name left blank.
boost::json::value without_picture(const boost::json::value& body);

/// Where the picture's data stand in a body; null when they do not.
boost::json::value* picture_in(boost::json::value& body);

}  // namespace vision::detail
