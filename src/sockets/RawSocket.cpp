#include "sockets/RawSocket.h"

#include "platform/NameResolver.h"

#include <host/LoggerFactory.h>

#include <utility>

namespace VaroCommunicationAPI {

namespace {

bool GoOn() { return false; }

}  // namespace

RawSocket::RawSocket(const RawSocketTraits& traits, StreamMaker makeStream)
    : m_traits(traits), m_makeStream(std::move(makeStream)) {}

void RawSocket::Open(const std::wstring& host, std::uint32_t port) {
  if (&host != &m_strHost) m_strHost = host;
  m_port = port;
  m_addresses.clear();
  m_log = WindowsAgentCommon::LoggerFactory::GetLogger(
      WindowsAgentCommon::Format(m_traits.m_loggerName, static_cast<const void*>(this), m_strHost, m_port));
  Connect();
  m_bOpen = true;
}

bool RawSocket::IsOpen() const { return m_bOpen; }

void RawSocket::Close() { m_pStream.reset(); }

bool RawSocket::IsConnected() const { return m_pStream != nullptr; }

bool RawSocket::Connect() {
  Close();
  std::unique_ptr<ISocketStream> stream = m_makeStream(m_log);
  SocketError error = FindAddresses();
  if (!error) error = stream->Connect(m_addresses, m_strHost, &GoOn);
  stream->ReportConnect(m_log, error);
  m_lastResultCode = error.Number();
  if (!error) m_pStream = std::move(stream);
  return IsConnected();
}

/// Asks the resolver unless it has already given the addresses: a name unknown before may be known now.
SocketError RawSocket::FindAddresses() {
  if (!m_addresses.empty()) return {};
  Platform::ResolvedHost resolved = Platform::ResolveHost(m_strHost, m_port, Platform::AddressFamily::Any, &GoOn);
  m_addresses = std::move(resolved.m_addresses);
  return resolved.m_error;
}

std::int32_t RawSocket::Send(const void* buffer, std::uint32_t length) {
  SocketError error = Platform::ErrorNotConnected;
  if (m_pStream) error = m_pStream->Write(static_cast<const char*>(buffer), length, &GoOn, [] {}).m_error;
  m_lastResultCode = error.Number();
  if (error) {
    m_log.Error("Error sending data: %d", error.Number());
    if (error == Platform::ErrorWaitTimeout) {
      m_log.Debug("Socket timeout.");
    } else if (error == Platform::ErrorWouldBlock) {
      m_log.Debug("Would block.");
    }
    return -1;
  }
  m_bytesSent += length;
  return static_cast<std::int32_t>(length);
}

std::int32_t RawSocket::Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) {
  // 32-bit arithmetic, deliberately: the time-out wraps after 4294967 milliseconds.
  const std::uint32_t microseconds = timeoutMs * 1000u;
  const ACE_Time_Value limit(static_cast<time_t>(microseconds / 1'000'000u),
                             static_cast<suseconds_t>(microseconds % 1'000'000u));
  SocketError error = Platform::ErrorNotConnected;
  if (m_pStream) {
    error = m_pStream->Read(static_cast<char*>(buffer), length, timeoutMs == m_traits.m_noTimeout ? nullptr : &limit);
  }
  m_lastResultCode = error.Number();
  if (!error) {
    m_bytesReceived += length;
    return static_cast<std::int32_t>(length);
  }
  if (error == Platform::ErrorWaitTimeout && m_traits.m_timeoutError) {
    m_log.Error(m_traits.m_timeoutError, timeoutMs);
  } else {
    m_log.Error("Error receiving data: %d", error.Number());
  }
  return error == Platform::ErrorPeerClosed ? 0 : -1;
}

std::wstring RawSocket::GetHost() const { return m_strHost; }

std::uint32_t RawSocket::GetPort() const { return m_port; }

std::int32_t RawSocket::GetLastResultCode() const { return m_lastResultCode; }

}  // namespace VaroCommunicationAPI
