// A TLS client connection over TCP that can be given up.
#pragma once

#include "platform/SocketIo.h"

#include <host/Log.h>

#include <ace/INET_Addr.h>
#include <ace/SSL/SSL_SOCK_Stream.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// How long a server may take for the handshake. One that accepts connections and says nothing holds nobody for ever.
constexpr std::chrono::milliseconds defaultHandshakeLimit = std::chrono::seconds(60);

/// One connection, from `Connect` to `Close`; another needs another object. One thread at a time. Errors are the
/// callers' numbers, or the TLS library's own code where it refused. The callers see to it that no signal is raised,
/// but for closing.
class TlsStream {
 public:
  /// Asked at least ten times a second while something is waited for; says that it is to be given up, with error 10004.
  using IsInterrupted = std::function<bool()>;

  /// The connection follows the settings of `context` as they are now and does not need it afterwards. Who reads much
  /// gives `readBufferBytes`, so that several records are read from the system at once; the buffer is kept from the
  /// first read on.
  explicit TlsStream(ACE_SSL_Context& context, std::size_t readBufferBytes = 0);
  ~TlsStream();
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  /// To be called before `Connect`: lets the server know which of its names is meant. An address is not sent.
  void SetServerName(const std::wstring& host);

  /// Connects to the first of `addresses` that accepts, without a time-out, and shakes hands within `handshakeLimit`
  /// (error 137 when that is over). Returns 0 or the error, and then leaves nothing open.
  int Connect(const std::vector<ACE_INET_Addr>& addresses, std::chrono::milliseconds handshakeLimit,
              const IsInterrupted& isInterrupted);

  /// Writes all `length` bytes in records as full as they can be, waiting for room without a limit. `onProgress` is
  /// called when the system has accepted bytes. The outcome counts the bytes of records that it has accepted whole.
  /// Where a peer may speak that nobody listens to, `discards`: what it says while there is no room is discarded, and
  /// its end is an error then.
  Platform::WriteOutcome Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                               const std::function<void()>& onProgress, bool discards = false);

  /// Reads exactly `length` bytes. Waits at most `wait` each time that nothing is there (error 137), or without a limit
  /// when it is null. Returns 0 or the error; what came before it is lost.
  int Read(char* buffer, std::size_t length, const ACE_Time_Value* wait);

  /// Looks, without blocking, whether the peer has ended the connection, and discards what it sent. Returns 0 while the
  /// connection stands, 10101 after an orderly close, or the error it died of.
  int PeerState();

  /// Tells the peer that nothing follows and waits until it has everything, or has closed; discards what it says.
  void Finish(const IsInterrupted& isInterrupted);

  /// Tells the peer, without waiting for it, and closes. Idempotent.
  void Close();

  ACE_HANDLE Handle() const { return m_stream.get_handle(); }
  const char* ProtocolText() const;
  const char* CipherText() const;

  /// The certificate that the server showed, or an empty text when it showed none.
  std::string PeerCertificatePem() const;

  /// What the TLS library gave as the reason of the last failure; empty when the failure was not its.
  std::string FailureReason() const;

 private:
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;

  int Handshake(std::chrono::milliseconds limit, const IsInterrupted& isInterrupted);
  int Diagnose(int result);
  int WaitToRetry(int result, const IsInterrupted& isInterrupted, Deadline deadline);
  int ReadLibraryErrors();

  ACE_SSL_SOCK_Stream m_stream;
  bool m_bPeerTalks = false;
  std::vector<unsigned long> m_failure;  ///< the errors of the last failed operation, the cause first
};

/// The text of an error that `TlsStream` gave.
std::string TlsErrorText(int error);

/// Logs which version and cipher the connection uses.
void ReportTlsConnection(const WindowsAgentCommon::Log& log, const TlsStream& stream);

/// Logs what the TLS library gave as the reason, unless that is empty.
void ReportTlsFailureReason(const WindowsAgentCommon::Log& log, const std::string& reason);

/// Logs that no connection was made, and the library's `reason` unless it is empty.
void ReportTlsConnectFailure(const WindowsAgentCommon::Log& log, int error, const std::string& reason);

}  // namespace VaroCommunicationAPI
