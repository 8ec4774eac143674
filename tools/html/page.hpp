#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The building blocks of the HTML reports. All functions are pure. Parameters
/// called `html` are markup and go out as they are; every other text is escaped
/// here, so text from a model or a page is safe in it.
namespace html {

/// `text`, harmless between tags and in quoted attributes. Control characters
/// other than line feed and tab, and what is not valid UTF-8, become U+FFFD.
std::string escaped(std::string_view text);

/// What a page has of its own. Neither text may hold the end tag of its element.
struct PageExtras {
  std::string_view style;   ///< CSS, after the common style sheet
  std::string_view script;  ///< JavaScript, run when the page has been read
};

/// A whole page: UTF-8, self-contained, dark or light as the reader's system is,
/// with a policy that forbids whatever is not in the page itself, and every script
/// but `extras.script`. `title` is also its heading; `html` follows.
std::string page(std::string_view title, std::string_view html, const PageExtras& extras = {});

/// Names with their values, side by side.
std::string facts(const std::vector<std::pair<std::string, std::string>>& entries);

/// Preformatted text, folded away behind `summary` until the reader opens it.
std::string folded(std::string_view summary, std::string_view text);

}  // namespace html
