// The file that holds the certificate chain of the configuration server: trusted as it stands, or fetched and checked.
#pragma once

#include "platform/Certificate.h"
#include "platform/CertificateStore.h"
#include "sockets/TlsStream.h"

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/Log.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// A certificate on its way into a chain, or none.
using CertificateHolder = Platform::Certificate;

/// What the manager asks of the system. A text is empty when it cannot be made.
struct CertificateServices {
  /// Returns 0, or the system's error number with the store empty.
  std::function<int(const std::wstring& name, Platform::CertificateStore& store)> m_openStore =
      [](const std::wstring& name, Platform::CertificateStore& store) { return store.Open(name); };
  std::function<std::string(const CertificateHolder&)> m_certificateText = &CertificateHolder::Pem;
  std::function<std::string(const TlsStream&)> m_peerCertificateText = &TlsStream::PeerCertificatePem;
};

/// Trusts on first use, with a check: when the file is missing, the certificate that the server shows is taken if its
/// issuers lead to a self-signed certificate or to one of the store "ROOT". A file that exists is trusted whatever it
/// holds. Every failure is a false (or 0) and a line in the log; nothing is thrown but for want of memory. One thread
/// at a time.
class CertificateManager {
 public:
  explicit CertificateManager(std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit,
                              CertificateServices services = {});
  virtual ~CertificateManager();
  CertificateManager(const CertificateManager&) = delete;
  CertificateManager& operator=(const CertificateManager&) = delete;

  // To be called in this order before anything else.

  /// A name, or an address; an IPv6 one may stand in brackets.
  void SetServer(const std::string& server);
  void SetPort(std::uint16_t port);
  void SetProtocolList(const SSLProtocolList& protocols);

  /// Looks whether the file exists. From then on it is trusted, also when it goes or changes later.
  void SetPEMFilePath(const std::wstring& path);

  /// Returns whether the file can be relied on, after fetching and checking the chain when it does not exist. A failed
  /// attempt is not remembered, and leaves no file. False without a message when there is no path.
  bool ValidateCertificate();

  // The steps of the above.

  /// Connects to the server and stores the certificate that it shows, whatever that is, as PEM in `text`. A server that
  /// does not finish the handshake within the limit is given up. False with `text` empty.
  bool RetrieveServerCertificateText(std::string& text);

  /// Reads a PEM text. False, with none in `holder`, when it is no certificate or one of more than 16384 bytes in DER.
  bool GetContextFromCertificateText(const std::string& text, CertificateHolder& holder);

  /// Fills `chain`, which is empty, with the PEM texts of the certificate and its issuers, each after what it issued.
  /// Returns their number: 0 when the chain is not trusted. When the store "ROOT" cannot be opened, the texts gathered
  /// so far stay.
  std::size_t RetrieveChainTextForContext(const CertificateHolder& holder, std::vector<std::string>& chain);

  /// Writes the chain of the certificate in `text` to the file, the topmost issuer first. Nobody sees a part of it, and
  /// only its owner can write it. On failure there is no file of this name.
  bool WriteCertificateChainFile(const std::wstring& path, const std::string& text);

  // False, with the text empty, of no certificate and when there is no text.

  bool CertificateToText(const CertificateHolder& holder, std::string& text) const;
  static bool GetSubjectDisplayName(const CertificateHolder& holder, std::wstring& name);
  static bool GetSubjectRDN(const CertificateHolder& holder, std::wstring& name);

 private:
  SocketError ConnectToServer(TlsStream& stream) const;
  void EndChain(const CertificateHolder& top, std::vector<std::string>& chain);

  WindowsAgentCommon::Log m_log;
  std::uint16_t m_port = 0;
  std::string m_strServer;
  SSLProtocolList m_protocols;
  std::wstring m_strPEMPath;
  bool m_bHaveCertificate = false;
  int m_lastError = 0;  ///< the system's number of what failed last
  const std::chrono::milliseconds m_handshakeLimit;
  const CertificateServices m_services;
};

}  // namespace VaroCommunicationAPI
