// The server's log: one line of standard output for each event.
#pragma once

#include <string_view>

namespace sorvex::configserver {

/// Writes the time and the text, control characters escaped, and does not wait for more.
void WriteLog(std::string_view text);

}  // namespace sorvex::configserver
