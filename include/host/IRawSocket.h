// A plain, synchronous byte pipe to one server.
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>
#include <string>

namespace WindowsAgentCommon {

/// One thread at a time. No operation throws for a network error; `GetLastResultCode` reports it. Operations are
/// declared in slot order.
class SORVEXCOMMON_EXPORT IRawSocket {
 public:
  virtual ~IRawSocket();  // 0

  /// Stores the address and connects; `IsConnected` gives the outcome. `port` is 1 to 65535.
  virtual void Open(const std::wstring& host, std::uint32_t port) = 0;  // 1

  /// Whether `Open` has been called.
  virtual bool IsOpen() const = 0;  // 2

  /// Ends the connection, if there is one.
  virtual void Close() = 0;  // 3

  virtual bool IsConnected() const = 0;  // 4

  /// Closes any connection and connects again. Blocks without a time-out. Returns whether it is connected.
  virtual bool Connect() = 0;  // 5

  /// Sends `length` bytes. Returns the number of bytes sent, or a negative value on error.
  virtual std::int32_t Send(const void* buffer, std::uint32_t length) = 0;  // 6

  /// Reads exactly `length` bytes, waiting `timeoutMs` milliseconds (each class defines special values). Returns the
  /// number of bytes received, or -1 on an error or a time-out.
  virtual std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) = 0;  // 7

  /// The host given to `Open`.
  virtual std::wstring GetHost() const = 0;  // 8

  /// The port given to `Open`.
  virtual std::uint32_t GetPort() const = 0;  // 9

  /// The error number of the last failed operation, 0 after a successful one: 137 time-out, 10035 would block, 10061
  /// connection refused, the Winsock number of every other condition that has one, else the system's own.
  virtual std::int32_t GetLastResultCode() const = 0;  // 10
};

}  // namespace WindowsAgentCommon
