#pragma once

#include <boost/json/value.hpp>
#include <string>
#include <string_view>

namespace vision::chromium {

/// Delays a script until a page's text can be drawn: Chromium shows none in a web font that
/// is still loading, for up to 3 s. The page waits, so this needs no command of its own.
///
/// A document whose fonts have once taken longer than that delays no further script.
class FontWait {
 public:
  /// A script for evaluation(): waits, then takes the value of the expression `value`.
  std::string before(std::string_view value) const;

  /// The value in what such a script returned.
  boost::json::value value_in(boost::json::value returned);

 private:
  boost::json::value late_document_;  // its time origin; null if there is none
};

}  // namespace vision::chromium
