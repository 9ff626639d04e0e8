// A destination socket over plain TCP.
#pragma once

#include "sockets/StreamDestinationSocket.h"

#include <ace/SOCK_Stream.h>

#include <cstddef>
#include <memory>

namespace VaroCommunicationAPI {

class TCPSocket : public StreamDestinationSocket {
 public:
  explicit TCPSocket(std::shared_ptr<ISocketTime> time = ISocketTime::System());
  ~TCPSocket() override;

  /// Throws `OperationNotSupportedException`, always: a destination is only written to.
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override;

 protected:
  void NameLogger() override;
  int OpenStream(const std::vector<ACE_INET_Addr>& addresses) override;
  void CloseStream() override;
  void FinishStream() override;
  std::optional<std::uint64_t> StreamProgress() override;
  Platform::WriteOutcome WriteStream(const char* data, std::size_t length) override;
  int StreamPeerState() override;
  int SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) override;
  void ReportConnectFailure(int error) override;
  const char* KeepAliveWarning() const override;

 private:
  /// The stream closes with its last owner.
  std::shared_ptr<ACE_SOCK_Stream> m_pStream;
  /// Bytes that the peer has said.
  std::size_t m_discarded = 0;
};

}  // namespace VaroCommunicationAPI
