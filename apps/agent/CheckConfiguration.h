// Checks a configuration without an agent.
#pragma once

#include <CommandLine.h>

namespace sorvex::agent {

/// Prints what the configuration holds, or its first error with the line. Returns the program's exit status. Throws
/// `std::system_error` when the file cannot be read.
int RunCommand(const CheckConfigurationCommand& command);

}  // namespace sorvex::agent
