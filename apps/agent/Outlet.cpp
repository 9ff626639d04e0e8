#include <Outlet.h>

#include <Output.h>
#include <platform/Platform.h>

#include <chrono>
#include <stdexcept>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// Pause before a refused event is tried again. The queue makes the caller wait itself; a socket that is not connected
/// answers at once.
constexpr std::chrono::milliseconds retryPause = 50ms;

// What a UDP socket answers to a payload that is no datagram.
constexpr std::int32_t emptyPayload = 10022;
constexpr std::int32_t payloadTooLong = 10040;

std::shared_ptr<ISocket> CreateSocket(const Destination& destination, const ForwardCommand& command,
                                      IConnectionFactory& factory) {
  constexpr std::uint8_t stream = SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET;
  constexpr std::uint8_t datagram = SOCKET_FLAG_DATAGRAM | SOCKET_FLAG_INTERNET;
  std::shared_ptr<IRawSocket> rawSocket;
  if (destination.scheme == Scheme::Tls) {
    factory.CreateSSLSocket(stream, command.tlsVersions, rawSocket);
  } else {
    factory.CreateSocket(destination.scheme == Scheme::Udp ? datagram : stream, rawSocket);
  }
  std::shared_ptr<ISocket> socket = std::dynamic_pointer_cast<ISocket>(rawSocket);
  if (!socket) throw std::runtime_error("the module made no socket for " + destination.url);
  return socket;
}

}  // namespace

Outlet::Outlet(const Destination& destination, const ForwardCommand& command, IConnectionFactory& factory)
    : m_destination(destination),
      m_command(command),
      m_pSocket(CreateSocket(destination, command, factory)),
      m_pUdpSocket(dynamic_cast<const IUDPSocket*>(m_pSocket.get())) {}

ParameterBlock Outlet::GetSocketParameters() const {
  // Of two entries with one key the first is read: what the user sets comes first.
  ParameterBlock parameters = m_command.parameters;
  parameters.emplace("TargetAddress", m_destination.host);
  parameters.emplace("TargetPort", std::to_string(m_destination.port));
  parameters.emplace("Socket.BlockingSendStrategy", m_command.queued ? "false" : "true");
  parameters.emplace("PayloadBuilderType", m_command.builder);
  if (m_destination.scheme == Scheme::Tls) parameters.emplace("Certificate", m_command.certificate);
  return parameters;
}

void Outlet::Open() { m_pSocket->Initialize(GetSocketParameters()); }

void Outlet::Close() { m_bClosed = m_pSocket->Shutdown() == 0; }

/// Sends the event once; returns whether the socket has taken it.
bool Outlet::TrySend(const Event& event) {
  const std::uint32_t sentBefore = m_pSocket->GetMessagesSent();
  if (m_pSocket->SendEvent(event) >= 0) return true;
  // A payload of no bytes at all is sent, although the blocking strategy reports the bytes that it did not write.
  return !m_command.queued && m_pSocket->GetMessagesSent() != sentBefore;
}

void Outlet::Send(const Event& event) {
  if (!HasGivenUp() && TrySend(event)) return;
  const SteadyClock::time_point begin = SteadyClock::now();
  while (!HasGivenUp()) {
    if (IsUnsendable()) {
      ReportUnsendable();
      break;
    }
    m_refused.fetch_add(1, std::memory_order_relaxed);
    const std::chrono::duration<double> elapsed = SteadyClock::now() - begin;
    const bool isOutOfPatience = m_command.giveUpAfter && elapsed.count() >= *m_command.giveUpAfter;
    if (isOutOfPatience || IsInterrupted() || !m_bInsists.load(std::memory_order_relaxed)) {
      GiveUp();
      break;
    }
    WaitForInterrupt(retryPause);
    if (TrySend(event)) return;
  }
  CountUnsent(1);
}

/// Whether the event that was just refused would be refused for ever. A queued socket drops such events itself.
bool Outlet::IsUnsendable() const {
  if (m_pUdpSocket == nullptr || m_command.queued || !m_pSocket->IsConnected()) return false;
  const std::int32_t result = m_pSocket->GetLastResultCode();
  return result == payloadTooLong || result == emptyPayload;
}

void Outlet::ReportUnsendable() {
  if (m_bUnsendableReported) return;
  m_bUnsendableReported = true;
  PrintError(Url() + ": events that are empty or too long for a datagram are not sent");
}

void Outlet::PrintCounters() const {
  PrintNumber("messages-submitted", m_pSocket->GetMessagesSubmitted());
  PrintNumber("bytes-submitted", m_pSocket->GetBytesSubmitted());
  PrintNumber("messages-sent", m_pSocket->GetMessagesSent());
  PrintNumber("bytes-sent", m_pSocket->GetBytesSent());
  PrintNumber("messages-truncated", m_pSocket->GetMessagesTruncated());
  PrintNumber("bytes-truncated", m_pSocket->GetBytesTruncated());
  PrintNumber("messages-dropped", m_pSocket->GetMessagesDropped());
  PrintNumber("bytes-dropped", m_pSocket->GetBytesDropped());
  PrintNumber("queue-size", static_cast<std::int64_t>(m_pSocket->GetQueueSize()));
  if (m_pUdpSocket != nullptr) PrintNumber("consecutive-send-failures", m_pUdpSocket->GetConsecutiveSendFailures());
  PrintNumber("refused", static_cast<std::int64_t>(Refused()));
  PrintNumber("unsent", static_cast<std::int64_t>(Unsent()));
}

bool Outlet::HasSentAll(std::uint64_t events) const {
  // The socket's counters are 32 bits wide and wrap.
  return m_bClosed && !HasGivenUp() && Unsent() == 0 &&
         m_pSocket->GetMessagesSent() == static_cast<std::uint32_t>(events);
}

}  // namespace sorvex::agent
