// How a console program of this system begins.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace sorvex {

/// The arguments in UTF-8, without the program's name; a lone surrogate becomes U+FFFD. From here on standard output
/// and error take bytes as they are, in UTF-8. Nothing when the system does not give the arguments.
std::optional<std::vector<std::string>> StartProgram();

}  // namespace sorvex
