// The commands for the agent's keys and token, which need neither the module nor an installation.
#pragma once

#include <CommandLine.h>

namespace sorvex::agent {

/// Each works on the key containers below the configuration directory, prints its result and returns the program's exit
/// status. Throws `std::exception` saying what failed.
int RunCommand(const KeyCreateCommand& command);
int RunCommand(const KeyShowCommand& command);
int RunCommand(const TokenProtectCommand& command);

}  // namespace sorvex::agent
