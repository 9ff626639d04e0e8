// The commands about the agent's keys and token, which need neither the module nor an installation.
#pragma once

#include <CommandLine.h>

#include <string>

namespace sorvex::agent {

/// Runs the command on the key containers of a configuration directory (empty: the default one), prints its result and
/// returns the program's exit status. Throws `std::exception` saying what failed.
int RunLocalCommand(const LocalCommand& command, const std::string& configDirectory);

}  // namespace sorvex::agent
