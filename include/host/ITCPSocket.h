// A destination socket over a stream (TCP or TLS).
#pragma once

#include <host/ISocket.h>

#include <ace/Time_Value.h>

namespace WindowsAgentCommon {

/// Slots 0 to 22 are those of `ISocket`. Times are wall-clock times since 1970-01-01 00:00 UTC; zero means never.
class SORVEXCOMMON_EXPORT ITCPSocket : public ISocket {
 public:
  ~ITCPSocket() override;

  /// Start of the last `Connect`.
  virtual ACE_Time_Value GetLastConnectAttemptTime() const = 0;  // 23

  /// Start of the last `Connect` that succeeded.
  virtual ACE_Time_Value GetConnectedSinceTime() const = 0;  // 24

  /// Start of the last `Connect` that failed.
  virtual ACE_Time_Value GetLastConnectFailureTime() const = 0;  // 25

  /// Earliest time of the next automatic reconnect; zero after a successful connect.
  virtual ACE_Time_Value GetNextReconnectTime() const = 0;  // 26
};

}  // namespace WindowsAgentCommon
