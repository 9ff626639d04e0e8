// Which connection to the configuration server the module makes.
#pragma once

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

enum class ConnectionMode { StandAlone, DirectTls, Https };

/// By the parameters of the installation that the module has read.
ConnectionMode GetConnectionMode(const WindowsAgentCommon::IConnectionFactory& factory);

/// As the agent prints it.
const char* NameOf(ConnectionMode mode);

}  // namespace sorvex::agent
