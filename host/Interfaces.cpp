// The destructors of the interfaces: each is defined here, so that the interface has one v-table and one type_info in
// the whole process.
#include <host/IComponentFactory.h>
#include <host/IConfigurationServerConnection.h>
#include <host/IConnectionFactory.h>
#include <host/IPayloadBuilder.h>
#include <host/IPayloadFactory.h>
#include <host/IRawSocket.h>
#include <host/ISecurityManager.h>
#include <host/ISerializer.h>
#include <host/IServiceComponent.h>
#include <host/ISocket.h>
#include <host/IStatisticsServer.h>
#include <host/ITCPSocket.h>
#include <host/IUDPSocket.h>

namespace WindowsAgentCommon {

IComponentFactory::~IComponentFactory() = default;
IConfigurationServerConnection::IConfigurationServerConnection() = default;
IConfigurationServerConnection::~IConfigurationServerConnection() = default;
IConnectionFactory::~IConnectionFactory() = default;
IPayloadBuilder::~IPayloadBuilder() = default;
IPayloadFactory::~IPayloadFactory() = default;
IRawSocket::~IRawSocket() = default;
ISecurityManager::~ISecurityManager() = default;
ISerializer::ISerializer() = default;
ISerializer::~ISerializer() = default;
IServiceComponent::~IServiceComponent() = default;
ISocket::~ISocket() = default;
IStatisticsServer::~IStatisticsServer() = default;
ITCPSocket::~ITCPSocket() = default;
IUDPSocket::~IUDPSocket() = default;

}  // namespace WindowsAgentCommon
