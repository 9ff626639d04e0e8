// A raw socket over TLS.
#pragma once

#include "sockets/RawSocket.h"
#include "sockets/TlsStream.h"

#include <CommunicationAPI/SSLProtocolList.h>

#include <chrono>
#include <string>

class ACE_SSL_Context;

namespace VaroCommunicationAPI {

/// Trusts the certificates in one PEM file, "ConfigurationServer.PEM" in the configuration directory unless another is
/// set, and the TLS library's default locations, which are loaded for a server that the file does not vouch for; no
/// name is compared. A time-out of 0xFFFFFFFF means that `Receive` waits without limit, and 0 that it does not wait.
/// One thread at a time. Destruction closes.
class SSLTCPRawSocket : public RawSocket {
 public:
  explicit SSLTCPRawSocket(const SSLProtocolList& protocols,
                           std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit);

  /// Takes effect at the next `Connect`. A file that cannot be read leaves only the default locations trusted.
  virtual void SetCertificateFile(const std::wstring& path);  // 11

  /// Sum of positive `Send` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesSent() const;  // 12

  /// Sum of positive `Receive` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesReceived() const;  // 13

 private:
  void Configure(ACE_SSL_Context& context) const;

  const SSLProtocolList m_protocols;
  const std::chrono::milliseconds m_handshakeLimit;
  std::string m_strCertificateFile;
};

}  // namespace VaroCommunicationAPI
