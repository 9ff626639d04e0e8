// The agent as a system service.
#pragma once

#include <CommandLine.h>

namespace sorvex::agent {

/// Each prints what was done and returns the program's exit status. Throws `std::system_error` saying what failed.
int RunCommand(const ServiceInstallCommand& command);
int RunCommand(const ServiceRemoveCommand& command);

}  // namespace sorvex::agent
