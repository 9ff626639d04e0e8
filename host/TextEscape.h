// Making a value safe to stand in one line of a log.
#pragma once

#include <string>
#include <string_view>

namespace WindowsAgentCommon {

/// Appends `value` with every byte of a control character (below U+0020, U+007F to U+009F, U+2028, U+2029) and every
/// invalid UTF-8 byte written as \n, \r, \t or \xHH. Everything else, a backslash too, stays as it is.
void AppendEscaped(std::string& text, std::string_view value);

}  // namespace WindowsAgentCommon
