// A raw socket over TLS.
#pragma once

#include "sockets/RawSocket.h"
#include "sockets/TlsStream.h"

#include <CommunicationAPI/SSLProtocolList.h>

#include <chrono>
#include <string>

class ACE_SSL_Context;

namespace VaroCommunicationAPI {

/// Trusts the certificates in one PEM file, by default "ConfigurationServer.PEM" in the configuration directory, and
/// those in the TLS library's default locations, which are loaded only for a server that the file does not vouch for.
/// The server's name is not compared. A time-out of 0xFFFFFFFF means that `Receive` waits without limit, 0 that it does
/// not wait. One thread at a time. Destruction closes.
class SSLTCPRawSocket : public RawSocket {
 public:
  explicit SSLTCPRawSocket(const SSLProtocolList& protocols,
                           std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit);

  /// Takes effect at the next `Connect`. If the file cannot be read, only the default locations are trusted.
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
