// The commands that fetch something from the configuration server into a file. Each prints its result and returns the
// program's exit status. Unless all data arrived with the right digest, the file stays unchanged.
#pragma once

#include <CommandLine.h>
#include <ServerConnection.h>

namespace sorvex::agent {

int RunCommand(const FetchConfigurationCommand& command, const ServerConnection& connection);

/// Asks for one patch after another until the server has one.
int RunCommand(const FetchPatchCommand& command, const ServerConnection& connection);

int RunCommand(const ServerKeyCommand& command, const ServerConnection& connection);

}  // namespace sorvex::agent
