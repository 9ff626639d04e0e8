// How a console program starts on this system.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sorvex {

/// Returns the arguments in UTF-8, without the program's name; a lone surrogate becomes U+FFFD. From here on standard
/// output and error take bytes unchanged, in UTF-8. Returns nothing when the system does not provide the arguments.
std::optional<std::vector<std::string>> StartProgram();

}  // namespace sorvex
