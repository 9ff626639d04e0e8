// A raw socket over plain TCP.
#pragma once

#include "sockets/RawSocketBase.h"

#include <ace/SOCK_Stream.h>

#include <memory>

namespace VaroCommunicationAPI {

/// A time-out of 0 means that `Receive` waits without limit. One thread at a time. Destruction does not close; the
/// stream closes with its last owner.
class TCPRawSocket : public RawSocketBase<TCPRawSocket> {
 public:
  /// Sum of positive `Send` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesSent() const;  // 11

  /// Sum of positive `Receive` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesReceived() const;  // 12

 private:
  friend class RawSocketBase<TCPRawSocket>;

  static constexpr const char* loggerNameFormat = "Code.TCPRawSocket_%p.%s.%d";
  static bool WaitsForEver(std::uint32_t timeoutMs) { return timeoutMs == 0; }

  int OpenStream(const std::vector<ACE_INET_Addr>& addresses);
  void CloseStream();
  void ReportConnected() {}
  void ReportConnectFailure(int error);
  RawTransfer SendAll(const void* buffer, std::size_t length);
  RawTransfer ReceiveAll(void* buffer, std::size_t length, const ACE_Time_Value* wait);
  void ReportReceiveFailure(int error, std::uint32_t timeoutMs);

  std::shared_ptr<ACE_SOCK_Stream> m_pStream;
};

}  // namespace VaroCommunicationAPI
