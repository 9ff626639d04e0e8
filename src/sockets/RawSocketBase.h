// What the two raw sockets share: address, state, totals and the reports of sending and receiving.
#pragma once

#include "platform/NameResolver.h"
#include "platform/SocketErrors.h"
#include "platform/SocketIo.h"

#include <host/IRawSocket.h>
#include <host/Log.h>
#include <host/LoggerFactory.h>

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// The end of an exact-count operation.
struct RawTransfer {
  ssize_t m_count = 0;  ///< all that was asked for, 0 at the end of the stream, or -1
  int m_error = 0;      ///< the callers' number of what ended it short of the count
};

/// `Derived` says how to connect, write and read, by these operations (none of them virtual, so that a derived class's
/// own operations follow the interface's slots):
///   static constexpr const char* loggerNameFormat      of the object's address, the host and the port
///   int OpenStream(addresses)                          returns 0 or the callers' error number; 0 never without address
///   void CloseStream()
///   void ReportConnectFailure(int error), ReportConnected()
///   RawTransfer SendAll(buffer, length), ReceiveAll(buffer, length, const ACE_Time_Value* wait)
///   static bool WaitsForEver(std::uint32_t timeoutMs)  which time-out means no time-out
///   void ReportReceiveFailure(int error, std::uint32_t timeoutMs)
template <class Derived>
class RawSocketBase : public WindowsAgentCommon::IRawSocket {
 public:
  void Open(const std::wstring& host, std::uint32_t port) override {
    if (&host != &m_strHost) m_strHost = host;
    m_port = port;
    m_addresses.clear();
    m_log = WindowsAgentCommon::LoggerFactory::GetLogger(
        WindowsAgentCommon::Format(Derived::loggerNameFormat, static_cast<const void*>(&Self()), m_strHost, m_port));
    Connect();
    m_bOpen = true;
  }

  bool IsOpen() const override { return m_bOpen; }

  void Close() override {
    if (!m_bConnected) return;
    const Platform::BrokenPipeGuard noSignal;
    Self().CloseStream();
    m_bConnected = false;
  }

  bool IsConnected() const override { return m_bConnected; }

  bool Connect() override {
    Close();
    const Platform::BrokenPipeGuard noSignal;
    m_lastResultCode = FindAddresses();
    if (m_lastResultCode == 0) m_lastResultCode = Self().OpenStream(m_addresses);
    m_bConnected = m_lastResultCode == 0;
    if (m_bConnected) {
      Self().ReportConnected();
    } else {
      Self().ReportConnectFailure(m_lastResultCode);
    }
    return m_bConnected;
  }

  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    const Platform::BrokenPipeGuard noSignal;
    const auto [count, error] = m_bConnected ? Self().SendAll(buffer, length) : notConnected;
    if (count == static_cast<ssize_t>(length)) {
      m_lastResultCode = 0;
    } else {
      m_lastResultCode = error;
      m_log.Error("Error sending data: %d", m_lastResultCode);
      if (m_lastResultCode == Platform::ErrorWaitTimeout) {
        m_log.Debug("Socket timeout.");
      } else if (m_lastResultCode == Platform::ErrorWouldBlock) {
        m_log.Debug("Would block.");
      }
    }
    if (count > 0) m_bytesSent += static_cast<std::uint32_t>(count);
    return static_cast<std::int32_t>(count);
  }

  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override {
    // 32-bit arithmetic, deliberately: the time-out wraps at 4294967 milliseconds.
    const std::uint32_t microseconds = timeoutMs * 1000u;
    const ACE_Time_Value limit(static_cast<time_t>(microseconds / 1'000'000u),
                               static_cast<suseconds_t>(microseconds % 1'000'000u));
    const auto [count, error] =
        m_bConnected ? Self().ReceiveAll(buffer, length, Derived::WaitsForEver(timeoutMs) ? nullptr : &limit)
                     : notConnected;
    if (count == static_cast<ssize_t>(length)) {
      m_lastResultCode = 0;
    } else {
      m_lastResultCode = error;
      Self().ReportReceiveFailure(m_lastResultCode, timeoutMs);
    }
    if (count > 0) m_bytesReceived += static_cast<std::uint32_t>(count);
    return static_cast<std::int32_t>(count);
  }

  std::wstring GetHost() const override { return m_strHost; }
  std::uint32_t GetPort() const override { return m_port; }
  std::int32_t GetLastResultCode() const override { return m_lastResultCode; }

 protected:
  std::uint32_t m_bytesSent = 0;
  std::uint32_t m_bytesReceived = 0;
  WindowsAgentCommon::Log m_log;

 private:
  static constexpr RawTransfer notConnected{-1, Platform::ErrorNotConnected};

  Derived& Self() { return static_cast<Derived&>(*this); }

  /// Asks the resolver unless it has given the addresses already: a name that was unknown before may be known by now.
  /// Returns 0 or the callers' error number.
  int FindAddresses() {
    if (!m_addresses.empty()) return 0;
    Platform::ResolvedHost resolved =
        Platform::ResolveHost(m_strHost, m_port, Platform::AddressFamily::Any, [] { return false; });
    m_addresses = std::move(resolved.m_addresses);
    return resolved.m_error;
  }

  std::vector<ACE_INET_Addr> m_addresses;
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
  bool m_bOpen = false;
  bool m_bConnected = false;
  std::int32_t m_lastResultCode = 0;
};

}  // namespace VaroCommunicationAPI
