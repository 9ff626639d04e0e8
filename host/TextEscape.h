// Makes a value safe for one line of a log.
#pragma once

#include "BoundedText.h"

#include <string_view>

namespace WindowsAgentCommon {

/// Appends `value` with a backslash written as \\, and every byte of a control character (below U+0020, U+007F to
/// U+009F, U+2028, U+2029), of a character that changes the writing direction (U+061C, U+200E, U+200F, U+202A to
/// U+202E, U+2066 to U+2069) and of invalid UTF-8 as \n, \r, \t or \xHH. Everything else is unchanged. The limit of
/// `text` splits no escape.
void AppendEscaped(BoundedText& text, std::string_view value);

}  // namespace WindowsAgentCommon
