// The file with the configuration server's certificate chain: trusted as it is, or fetched and checked.
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

/// A certificate to add to a chain, or none.
using CertificateHolder = Platform::Certificate;

/// What the manager needs from the system. A text is empty when it cannot be made.
struct CertificateServices {
  /// Returns 0, or the system's error number with the store empty.
  std::function<int(const std::wstring& name, Platform::CertificateStore& store)> m_openStore =
      [](const std::wstring& name, Platform::CertificateStore& store) { return store.Open(name); };
  std::function<std::string(const CertificateHolder&)> m_certificateText = &CertificateHolder::Pem;
  std::function<std::string(const TlsStream&)> m_peerCertificateText = &TlsStream::PeerCertificatePem;
};

/// Trust on first use, with a check: when the file is missing, the server's certificate is accepted if its issuers lead
/// to a self-signed certificate or to one in the store "ROOT". An existing file is trusted whatever it contains. Every
/// failure returns false (or 0) and logs a line; only running out of memory throws. One thread at a time.
class CertificateManager {
 public:
  explicit CertificateManager(std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit,
                              CertificateServices services = {});
  virtual ~CertificateManager();
  CertificateManager(const CertificateManager&) = delete;
  CertificateManager& operator=(const CertificateManager&) = delete;

  // Call these in this order before anything else.

  /// A name or an address; an IPv6 address may have brackets.
  void SetServer(const std::string& server);
  void SetPort(std::uint16_t port);
  void SetProtocolList(const SSLProtocolList& protocols);

  /// Checks whether the file exists. If so, it is trusted from then on, even if it is deleted or changed later.
  void SetPEMFilePath(const std::wstring& path);

  /// Returns whether the file can be used, after fetching and checking the chain if it does not exist. A failed attempt
  /// is not remembered and leaves no file. False without a message when there is no path.
  bool ValidateCertificate();

  // The steps of `ValidateCertificate`.

  /// Connects to the server and stores its certificate, whatever that is, as PEM in `text`. Gives up on a server that
  /// does not finish the handshake within the limit. Returns false with `text` empty.
  bool RetrieveServerCertificateText(std::string& text);

  /// Reads a PEM text. Returns false with `holder` empty when it is not a certificate or exceeds 16384 bytes in DER.
  bool GetContextFromCertificateText(const std::string& text, CertificateHolder& holder);

  /// Fills the empty `chain` with the PEM texts of the certificate and its issuers, each after what it issued. Returns
  /// their number: 0 when the chain is not trusted. When the store "ROOT" cannot be opened, the texts gathered so far
  /// stay.
  std::size_t RetrieveChainTextForContext(const CertificateHolder& holder, std::vector<std::string>& chain);

  /// Writes the chain of the certificate in `text` to the file atomically, the topmost issuer first. Only its owner can
  /// write the file. On failure there is no file of this name.
  bool WriteCertificateChainFile(const std::wstring& path, const std::string& text);

  // Returns false with the text empty when there is no certificate or it has no text.

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
  int m_lastError = 0;  ///< the system's number of the last failure
  const std::chrono::milliseconds m_handshakeLimit;
  const CertificateServices m_services;
};

}  // namespace VaroCommunicationAPI
