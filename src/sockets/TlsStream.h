// A stream over TLS.
#pragma once

#include "sockets/SocketStream.h"

#include <ace/SSL/SSL_SOCK_Stream.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// How long a server may take for the handshake, so that one that accepts and stays silent blocks nobody indefinitely.
constexpr std::chrono::milliseconds defaultHandshakeLimit = std::chrono::seconds(60);

/// The only code that uses the TLS library while a connection is up. Errors of the library carry its own code.
class TlsStream final : public ISocketStream {
 public:
  /// The connection copies the settings of `context`, which need not outlive this call. A stream for an exchange reads
  /// several records from the system at once, through a buffer that it keeps.
  TlsStream(ACE_SSL_Context& context, StreamUse use, std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit);
  ~TlsStream() override;
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  /// Sends the server name, unless `host` is an address.
  SocketError Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring& host,
                      const IsInterrupted& isInterrupted) override;
  void ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const override;

  /// Counts the bytes of records that the system has accepted whole.
  Platform::WriteOutcome Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                               const std::function<void()>& onProgress) override;
  SocketError Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) override;
  SocketError PeerState() override;
  void Finish(const IsInterrupted& isInterrupted) override;
  void Close() override;
  ACE_HANDLE Handle() const override;

  /// Returns the certificate that the server showed, or an empty text if it showed none.
  std::string PeerCertificatePem() const;

  /// Logs the TLS library's reason for the last failure, if the failure came from the library.
  void ReportReason(const WindowsAgentCommon::Log& log) const;

 private:
  void SetServerName(const std::wstring& host);
  SocketError Handshake(const IsInterrupted& isInterrupted);
  SocketError Diagnose(int result);
  SocketError WaitToWrite(int result, const IsInterrupted& isInterrupted);
  SocketError WaitToRetry(int result, const IsInterrupted& isInterrupted, Deadline deadline);
  SocketError ReadLibraryErrors();

  const StreamUse m_use;
  const std::chrono::milliseconds m_handshakeLimit;
  ACE_SSL_SOCK_Stream m_stream;
  bool m_bPeerTalks = false;
  std::vector<SocketError> m_failure;  ///< errors of the last failed operation, the cause first
};

}  // namespace VaroCommunicationAPI
