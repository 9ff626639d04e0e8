// What both raw sockets share, whatever stream they hold.
#pragma once

#include "sockets/SocketStream.h"

#include <host/IRawSocket.h>
#include <host/Log.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// What differs between raw socket classes.
struct RawSocketTraits {
  const char* m_loggerName;   ///< a format with the object's address, the host and the port
  std::uint32_t m_noTimeout;  ///< the time-out of `Receive` that means "without limit"
  const char*
      m_timeoutError;  ///< logged, with the time-out, when it has passed; null: the same text as for other errors
};

/// Address, state, totals, and the log texts of sending and receiving. Has no virtual operations but the interface's,
/// so that a derived class's own follow in the next slots.
class RawSocket : public WindowsAgentCommon::IRawSocket {
 public:
  void Open(const std::wstring& host, std::uint32_t port) override;
  bool IsOpen() const override;
  void Close() override;
  bool IsConnected() const override;
  bool Connect() override;
  std::int32_t Send(const void* buffer, std::uint32_t length) override;
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override;
  std::wstring GetHost() const override;
  std::uint32_t GetPort() const override;
  std::int32_t GetLastResultCode() const override;

 protected:
  RawSocket(const RawSocketTraits& traits, StreamMaker makeStream);

  std::uint32_t m_bytesSent = 0;
  std::uint32_t m_bytesReceived = 0;

 private:
  SocketError FindAddresses();

  const RawSocketTraits m_traits;
  const StreamMaker m_makeStream;
  std::unique_ptr<ISocketStream> m_pStream;  ///< null when not connected
  std::vector<ACE_INET_Addr> m_addresses;
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
  bool m_bOpen = false;
  std::int32_t m_lastResultCode = 0;
  WindowsAgentCommon::Log m_log;
};

}  // namespace VaroCommunicationAPI
