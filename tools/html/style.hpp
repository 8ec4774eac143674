#pragma once

namespace html {

/// The content of style.css.
extern const char* const style_sheet;

}  // namespace html
