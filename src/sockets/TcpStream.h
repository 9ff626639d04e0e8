// A stream over plain TCP.
#pragma once

#include "sockets/SocketStream.h"

#include <cstddef>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

class TcpStream final : public ISocketStream {
 public:
  explicit TcpStream(StreamUse use);
  ~TcpStream() override;
  TcpStream(const TcpStream&) = delete;
  TcpStream& operator=(const TcpStream&) = delete;

  SocketError Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring& host,
                      const IsInterrupted& isInterrupted) override;
  void ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const override;
  Platform::WriteOutcome Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                               const std::function<void()>& onProgress) override;
  SocketError Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) override;
  SocketError PeerState() override;
  void Finish(const IsInterrupted& isInterrupted) override;
  void Close() override;
  ACE_HANDLE Handle() const override;

 private:
  const StreamUse m_use;
  ACE_SOCK_Stream m_stream;
  std::size_t m_discarded = 0;  ///< bytes that the peer of a delivery has sent
};

}  // namespace VaroCommunicationAPI
