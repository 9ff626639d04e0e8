// The marker "force.deploy" in the patch directory, which asks for a deployment at the next start.
#pragma once

#include <host/Log.h>

namespace VaroCommunicationAPI {

/// Whether the marker is there. Its content does not matter.
bool IsForceDeployRequested();

/// Deletes the marker unless a "*.tar.gz" waits in the patch directory, which is then logged at Debug. A failed
/// deletion is silent. Throws nothing.
void TidyForceDeployMarker(const WindowsAgentCommon::Log& log);

}  // namespace VaroCommunicationAPI
