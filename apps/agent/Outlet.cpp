#include <Outlet.h>

#include <MakeSocket.h>
#include <Output.h>

#include <host/EnvironmentBlockHelper.h>

#include <chrono>
#include <exception>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using namespace std::chrono_literals;

/// Pause before a refused event is tried again. The queue makes the caller wait itself; a socket that is not connected
/// answers at once.
constexpr std::chrono::milliseconds retryPause = 50ms;

/// Pause before a second shutdown of a socket whose thread may have been about to use it.
constexpr std::chrono::milliseconds stopPause = 5ms;

// A UDP socket's errors for a payload that fits no datagram, and for a host without an IPv4 address.
constexpr std::int32_t payloadTooLong = 10040;
constexpr std::int32_t addressFamilyNotSupported = 10047;

/// Whether an event without text has any bytes on the wire.
bool SendsEmptyPayloads(const Destination& destination, const ForwardCommand& command) {
  const EnvironmentBlockHelper parameters(command.parameters);
  std::string framing;
  parameters.GetStringValue("Framing", framing, std::string(settings::framings.front().second));
  bool appendsLineFeed = true;
  parameters.GetBooleanValue("AppendLineFeed", appendsLineFeed, true);
  return destination.scheme != Scheme::Udp && settings::FramesEmptyPayloads(framing, appendsLineFeed);
}

}  // namespace

Outlet::Outlet(const Destination& destination, const ForwardCommand& command, IConnectionFactory& factory)
    : m_destination(destination),
      m_command(command),
      m_pSocket(MakeSocket(factory, destination.scheme, command.tlsVersions, destination.url)),
      m_pUdpSocket(dynamic_cast<const IUDPSocket*>(m_pSocket.get())),
      m_bSendsEmptyPayloads(SendsEmptyPayloads(destination, command)) {}

ParameterBlock Outlet::GetSocketParameters() const {
  ParameterBlock parameters = m_command.parameters;
  parameters.emplace("TargetAddress", m_destination.host);
  parameters.emplace("TargetPort", std::to_string(m_destination.port));
  parameters.emplace("Socket.BlockingSendStrategy", m_command.queued ? "false" : "true");
  parameters.emplace("PayloadBuilderType", m_command.builder);
  if (m_destination.scheme == Scheme::Tls) parameters.emplace("Certificate", m_command.certificate);
  return parameters;
}

void Outlet::Open() {
  const Work work(*this);
  if (HasGivenUp()) return;
  try {
    m_pSocket->Initialize(GetSocketParameters());
  } catch (const std::exception& error) {
    GiveUp(error.what());
  }
  // Waiting does not give the host an IPv4 address.
  if (m_pUdpSocket != nullptr && !m_pSocket->IsConnected() &&
      m_pSocket->GetLastResultCode() == addressFamilyNotSupported) {
    GiveUp("UDP destinations are IPv4 only, and the host has only IPv6 addresses");
  }
}

void Outlet::Close() {
  {
    const std::lock_guard lock(m_mutex);
    m_bClosing = true;
  }
  if (m_stopper.joinable()) {
    m_stopper.join();
  } else {
    ShutDown();
  }
  m_bClosed = true;
}

void Outlet::GiveUp(const std::string& reason) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_bGivenUp || m_bClosing) return;
    m_strReason = reason;
    m_bGivenUp = true;
    m_stopper = std::jthread([this] { StopSocket(); });
  }
  m_gaveUp.notify_all();
}

/// A blocking socket is usable again after a shutdown: repeat it if the sending thread was using the socket.
void Outlet::StopSocket() {
  for (;;) {
    const bool wasWorking = m_bWorking;
    ShutDown();
    if (!wasWorking) return;
    std::this_thread::sleep_for(stopPause);
  }
}

void Outlet::ShutDown() { m_bClosedInOrder = m_pSocket->Shutdown() == 0; }

/// Sends the event once.
Outlet::Attempt Outlet::TrySend(const Event& event) {
  const std::uint32_t sentBefore = m_pSocket->GetMessagesSent();
  const std::uint32_t bytesBefore = m_pSocket->GetBytesSubmitted();
  if (m_pSocket->SendEvent(event) >= 0) {
    m_submitted += 1;
    m_accepted += 1;
    return Attempt::Taken;
  }
  const std::uint32_t submitted = m_pSocket->GetMessagesSubmitted();
  const bool isSubmitted = submitted != m_submitted;
  m_submitted = submitted;
  // An empty payload is sent, although the blocking strategy reports the bytes that it did not write.
  if (!m_command.queued && m_pSocket->GetMessagesSent() != sentBefore) return Attempt::Taken;
  (isSubmitted ? m_refused : m_refusedClosed) += 1;
  const bool isEmpty = m_pSocket->GetBytesSubmitted() == bytesBefore;
  return isSubmitted && IsUndeliverable(isEmpty) ? Attempt::Undeliverable : Attempt::Refused;
}

/// Whether the event just refused would always be refused. A queued socket drops such events itself.
bool Outlet::IsUndeliverable(bool isEmpty) const {
  if (m_command.queued || !m_pSocket->IsConnected()) return false;
  return (isEmpty && !m_bSendsEmptyPayloads) ||
         (m_pUdpSocket != nullptr && m_pSocket->GetLastResultCode() == payloadTooLong);
}

void Outlet::Send(const Event& event) {
  m_bRefused.store(false, std::memory_order_relaxed);
  m_beganNumber += 1;
  while (!HasGivenUp()) {
    switch (TrySend(event)) {
      case Attempt::Taken: return;
      case Attempt::Undeliverable:
        m_undeliverable += 1;
        ReportUndeliverable();
        return;
      case Attempt::Refused: break;
    }
    m_bRefused = true;
    WaitForRetry();
  }
  m_givenUp += 1;
}

void Outlet::WaitForRetry() {
  std::unique_lock lock(m_mutex);
  m_gaveUp.wait_for(lock, retryPause, [this] { return HasGivenUp(); });
}

void Outlet::ReportUndeliverable() {
  if (m_bUndeliverableReported) return;
  m_bUndeliverableReported = true;
  PrintError(Url() + ": events that are empty or too long for a datagram are not sent");
}

OutletActivity Outlet::GetActivity() const {
  OutletActivity activity;
  activity.moved = m_pSocket->GetMessagesSent() + m_pSocket->GetMessagesDropped();
  // What was sent between the two reads makes the difference negative.
  const auto accepted = static_cast<std::uint32_t>(m_accepted);
  const bool isQueued = m_command.queued && static_cast<std::int32_t>(accepted - activity.moved) > 0;
  activity.isPending = isQueued || m_bWorking;
  activity.isRefused = m_bWorking && m_bRefused;
  activity.beganNumber = isQueued ? 0 : std::uint64_t{m_beganNumber};
  if (m_pUdpSocket != nullptr) activity.failures = m_pUdpSocket->GetConsecutiveSendFailures();
  return activity;
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
  PrintNumber("refused", static_cast<std::int64_t>(m_refused));
  PrintNumber("refused-closed", static_cast<std::int64_t>(m_refusedClosed));
  PrintNumber("unsent", static_cast<std::int64_t>(Unsent()));
}

void Outlet::ReportLoss() const {
  const auto report = [this](std::uint64_t events, const std::string& reason) {
    if (events > 0) PrintError(Url() + ": events not sent: " + std::to_string(events) + " (" + reason + ")");
  };
  report(m_leftOut, "nothing was taken while other destinations went on");
  report(m_undeliverable, "they are empty or too long for a datagram");
  const std::uint64_t dropped = m_pSocket->GetMessagesDropped();
  const std::lock_guard lock(m_mutex);
  if (!m_bGivenUp) {
    report(dropped, m_pUdpSocket != nullptr ? "they were still queued at the end, or are no datagrams"
                                            : "they were still queued at the end");
  } else if (m_givenUp + dropped > 0) {
    report(m_givenUp + dropped, m_strReason);
  } else {
    PrintError(Url() + ": " + m_strReason);
  }
}

bool Outlet::HasSentAll(std::uint64_t events) const {
  // The socket's counters are 32 bits wide and wrap.
  return m_bClosedInOrder && !HasGivenUp() && Unsent() == 0 &&
         m_pSocket->GetMessagesSent() == static_cast<std::uint32_t>(events);
}

}  // namespace sorvex::agent
