// A raw socket over plain TCP.
#pragma once

#include "sockets/RawSocket.h"

namespace VaroCommunicationAPI {

/// A time-out of 0 means that `Receive` waits without limit. One thread at a time. Destruction closes.
class TCPRawSocket : public RawSocket {
 public:
  TCPRawSocket();

  /// Sum of positive `Send` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesSent() const;  // 11

  /// Sum of positive `Receive` results since construction; wraps at 32 bits.
  virtual std::uint32_t GetBytesReceived() const;  // 12
};

}  // namespace VaroCommunicationAPI
