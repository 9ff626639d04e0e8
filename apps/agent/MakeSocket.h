// The sockets of the agent's destinations.
#pragma once

#include <settings/DestinationNames.h>

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/IConnectionFactory.h>
#include <host/ISocket.h>

#include <memory>
#include <string>

namespace sorvex::agent {

/// Has the module make a socket for a destination; `tlsVersions` is for TLS alone. Throws `std::runtime_error`, which
/// names the `url`, when it makes none.
std::shared_ptr<WindowsAgentCommon::ISocket> MakeSocket(WindowsAgentCommon::IConnectionFactory& factory,
                                                        settings::DestinationType type,
                                                        const VaroCommunicationAPI::SSLProtocolList& tlsVersions,
                                                        const std::string& url);

}  // namespace sorvex::agent
