// What the agent prints.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace sorvex::agent {

/// Writes "key: value" as one line of standard output. Control characters and invalid UTF-8 in `value` are escaped.
void PrintValue(std::string_view key, std::string_view value);
void PrintNumber(std::string_view key, std::int64_t value);
void PrintBoolean(std::string_view key, bool value);
/// With three decimals.
void PrintDecimal(std::string_view key, double value);

/// Writes "sorvex-agent: text" as one line of standard error, escaped as above.
void PrintError(std::string_view text);

/// Returns whether everything printed to standard output has reached it.
bool FlushOutput();

}  // namespace sorvex::agent
