// A destination socket over UDP datagrams.
#pragma once

#include <host/ISocket.h>

#include <cstdint>

namespace WindowsAgentCommon {

/// Slots 0 to 22 are those of `ISocket`.
class SORVEXCOMMON_EXPORT IUDPSocket : public ISocket {
 public:
  ~IUDPSocket() override;

  /// Failed sends since the last successful `Connect`.
  virtual std::uint32_t GetConsecutiveSendFailures() const = 0;  // 23
};

}  // namespace WindowsAgentCommon
