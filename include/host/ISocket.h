// A destination socket: takes events, limits, counts and forwards them.
#pragma once

#include <host/Event.h>
#include <host/IRawSocket.h>
#include <host/ParameterBlock.h>

#include <cstddef>
#include <cstdint>

namespace WindowsAgentCommon {

/// Slots 0 to 10 are those of `IRawSocket`. Counters are 32 bits wide, wrap silently, and may be read in any thread.
/// With the queued strategy `Send` and `SendEvent` may be called from any thread, otherwise from one thread at a time.
class SORVEXCOMMON_EXPORT ISocket : public IRawSocket {
 public:
  ~ISocket() override;

  /// Reads the socket's parameters, then opens it.
  virtual void Initialize(const ParameterBlock& parameters) = 0;  // 11

  /// Builds the event's payload and sends it. Returns what `Send` returns, or -1 without a payload builder.
  virtual std::int32_t SendEvent(const Event& event) = 0;  // 12

  /// Ends the send thread, if there is one, and closes. Returns 0, or -1 when the queue refused the hang-up block.
  virtual int Shutdown() = 0;  // 13

  virtual std::uint32_t GetBytesSent() const = 0;          // 14
  virtual std::uint32_t GetMessagesSent() const = 0;       // 15
  virtual std::uint32_t GetBytesSubmitted() const = 0;     // 16
  virtual std::uint32_t GetMessagesSubmitted() const = 0;  // 17
  virtual std::uint32_t GetBytesTruncated() const = 0;     // 18
  virtual std::uint32_t GetMessagesTruncated() const = 0;  // 19
  virtual std::uint32_t GetBytesDropped() const = 0;       // 20
  virtual std::uint32_t GetMessagesDropped() const = 0;    // 21

  /// Bytes waiting in the send queue.
  virtual std::size_t GetQueueSize() const = 0;  // 22
};

}  // namespace WindowsAgentCommon
