#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Unicode text as bytes. Every function accepts any bytes: what is not valid
/// UTF-8 counts as one U+FFFD per maximal ill-formed part, and nothing throws
/// but std::bad_alloc.
namespace vision::text {

/// One step through a UTF-8 text.
struct CodePoint {
  char32_t value;    ///< the scalar value; U+FFFD for an ill-formed part
  std::size_t size;  ///< bytes it takes in the text; 0 at the end
};

/// Decodes the code point at the start of `rest`.
CodePoint next_code_point(std::string_view rest) noexcept;

/// The longest prefix of `text` with at most `count` code points. Never cuts
/// a code point in two.
std::string_view first_code_points(std::string_view text, std::size_t count) noexcept;

/// Appends the UTF-8 form of `value` (a scalar value) to `out`.
void append_utf8(std::string& out, char32_t value);

/// `text` as one harmless line for a log or a terminal: control characters
/// (C0, DEL, C1) and the Unicode line and paragraph separators become
/// backslash escapes (`\n`, `\t`, `\r`, `\u001b`, ...), ill-formed parts
/// U+FFFD. Everything else stays as it is.
std::string one_line(std::string_view text);

/// `text` without ASCII white space (blank, \t, \n, \v, \f, \r) at either end.
std::string_view trim(std::string_view text) noexcept;

}  // namespace vision::text
