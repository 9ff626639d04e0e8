// A destination socket over TLS.
#pragma once

#include "sockets/StreamDestinationSocket.h"
#include "sockets/TlsStream.h"

#include <CommunicationAPI/SSLProtocolList.h>

#include <openssl/ossl_typ.h>

#include <chrono>
#include <memory>
#include <string>

namespace VaroCommunicationAPI {

/// As `TCPSocket`, over a TLS stream; `Initialize` throws `InitializationException` without a "Certificate", and the
/// socket then stays unopened. The receiver's certificate is not verified, deliberately. The certificate of the
/// parameter block has to be there, but no key comes with it, and without its key no certificate can be shown: a
/// receiver that asks for one is shown none, and one that insists on it refuses the connection.
class SSLTCPSocket : public StreamDestinationSocket {
 public:
  explicit SSLTCPSocket(const SSLProtocolList& protocols, std::shared_ptr<ISocketTime> time = ISocketTime::System(),
                        std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit);
  ~SSLTCPSocket() override;

  /// Throws `OperationNotSupportedException`, always: a destination is only written to.
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override;

 protected:
  void ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) override;
  void AcceptParameters(const std::wstring& host, std::uint32_t port, std::uint32_t maxPayloadSize,
                        const std::string& builderType) override;
  void NameLogger() override;
  bool PrepareStream() override;
  int OpenStream(const std::vector<ACE_INET_Addr>& addresses) override;
  void CloseStream() override;
  void FinishStream() override;
  std::optional<std::uint64_t> StreamProgress() override;
  Platform::WriteOutcome WriteStream(const char* data, std::size_t length) override;
  int StreamPeerState() override;
  int SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) override;
  void ReportConnectFailure(int error) override;
  std::string ErrorText(int error) const override;
  const char* KeepAliveWarning() const override;

 private:
  void Configure(ACE_SSL_Context& context) const;

  const SSLProtocolList m_protocols;
  const std::chrono::milliseconds m_handshakeLimit;
  std::string m_strCertificate;
  std::shared_ptr<X509> m_pCertificate;
  std::shared_ptr<TlsStream> m_pStream;
  std::string m_strFailureReason;
};

}  // namespace VaroCommunicationAPI
