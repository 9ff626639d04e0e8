// The module's kind of connection to the configuration server.
#pragma once

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

enum class ConnectionMode { StandAlone, DirectTls, Https };

/// From the installation's parameters, which the module has read.
ConnectionMode GetConnectionMode(const WindowsAgentCommon::IConnectionFactory& factory);

/// As the agent prints it.
const char* NameOf(ConnectionMode mode);

}  // namespace sorvex::agent
