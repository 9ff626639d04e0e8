// The component through which all of the agent's network traffic goes.
#pragma once

#include <host/IConfigurationServerConnection.h>
#include <host/IRawSocket.h>
#include <host/IServiceComponent.h>

#include <cstdint>
#include <memory>
#include <string>

namespace VaroCommunicationAPI {
class SSLProtocolList;
}

namespace WindowsAgentCommon {

/// Bits that choose a socket. Other bits are ignored.
enum SocketFlags : std::uint8_t {
  SOCKET_FLAG_DATAGRAM = 1,
  SOCKET_FLAG_STREAM = 2,
  SOCKET_FLAG_INTERNET = 8,  ///< required with either of the two above
  SOCKET_FLAG_RAW = 16,      ///< a byte pipe without queue (`IRawSocket` only) instead of a destination socket
};

/// Slots 0 to 9 are those of `IServiceComponent`. After `Initialize` any thread may ask for connections and sockets.
class SORVEXCOMMON_EXPORT IConnectionFactory : public IServiceComponent {
 public:
  ~IConnectionFactory() override;

  /// Cleans up the patch directory and marks the component as not initialised.
  virtual void Shutdown() = 0;  // 10

  /// Whether the agent is to work without a configuration server for now.
  virtual bool IsStandAloneMode() const = 0;  // 11

  /// Makes a socket without TLS. A destination socket can be cast to `ISocket`, `ITCPSocket` or `IUDPSocket`. For flags
  /// that name no socket it throws `OperationNotSupportedException` and leaves `socket` unchanged.
  virtual void CreateSocket(std::uint8_t flags, std::shared_ptr<IRawSocket>& socket) = 0;  // 12

  /// The same with TLS, limited to the protocol versions of `protocols`, which is copied.
  virtual void CreateSSLSocket(std::uint8_t flags, const VaroCommunicationAPI::SSLProtocolList& protocols,
                               std::shared_ptr<IRawSocket>& socket) = 0;  // 13

  /// Makes a connection to the configuration server, replacing the content of `connection`.
  virtual void CreateConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) = 0;  // 14

  /// Closes a connection that this factory made, and resets the pointer.
  virtual void ReleaseConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) = 0;  // 15

  /// Stores the installation's parameter `name` in `value` (empty when there is none); returns whether it exists.
  virtual bool GetParameter(const std::string& name, std::string& value) const = 0;  // 16

  static const char* GetServiceName() { return "IConnectionFactory"; }
};

}  // namespace WindowsAgentCommon
