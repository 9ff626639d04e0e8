// The server's log: one line on standard output per event.
#pragma once

#include <string_view>

namespace sorvex::configserver {

/// Writes the time and the text, with control characters escaped, and flushes.
void WriteLog(std::string_view text);

}  // namespace sorvex::configserver
