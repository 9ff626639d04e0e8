#include "sockets/UDPSocket.h"

#include "platform/SocketErrors.h"
#include "platform/SocketIo.h"
#include "sockets/StreamConnector.h"

#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

#include <ace/OS_NS_sys_socket.h>

#include <algorithm>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t defaultMaxPayloadSize = 1020;
constexpr std::uint32_t failuresPerReconnect = 500;
constexpr auto failurePause = 1000ms;

}  // namespace

UDPSocket::UDPSocket(std::shared_ptr<ISocketTime> time) : DestinationSocket(defaultMaxPayloadSize, std::move(time)) {
  m_log = WindowsAgentCommon::LoggerFactory::GetLogger("Code.UDPSocket");
}

void UDPSocket::ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper&) {}

void UDPSocket::AcceptParameters(const std::wstring& host, std::uint32_t port, std::uint32_t maxPayloadSize,
                                 const std::string& builderType) {
  m_log.Debug("UDPSocket addr:%S port:%d maxPayload:%d builder:%s", host, port, maxPayloadSize, builderType);
}

std::int32_t UDPSocket::Receive(void*, std::uint32_t, std::uint32_t) {
  throw WindowsAgentCommon::OperationNotSupportedException("UDPSocket", "VaroCommunicationAPI::UDPSocket::Receive",
                                                           __LINE__);
}

UDPSocket::~UDPSocket() { EndLife(); }

void UDPSocket::Close() {
  m_life.Abandon();
  FinishConnection();
}

void UDPSocket::FinishConnection() {
  m_bWanted = false;
  const ConnectionTurn::Holder turn(m_turn, m_pTime->Now());
  CloseSocket();
}

void UDPSocket::CloseSocket() {
  m_life.SetOpen(false);
  m_pSocket.reset();
}

bool UDPSocket::IsConnected() const { return m_life.IsOpen(); }

Platform::ResolvedHost UDPSocket::ResolveTarget(Platform::AddressFamily family) {
  return Platform::ResolveHost(m_strHost, m_port, family, [this] { return MustGiveUp(); });
}

bool UDPSocket::Connect() {
  const SocketLife::Operation operation(m_life);
  if (!operation) return false;
  const ConnectionTurn::Holder turn(m_turn, m_pTime->Now());
  m_bWanted = true;
  return ConnectInTurn();
}

bool UDPSocket::ConnectInTurn() {
  CloseSocket();
  const int error = OpenSocket();
  m_lastResultCode = error;
  if (error != 0) {
    m_log.Error("Unable to open UDPSocket %S errorno %d", m_strDestination, error);
    if (error == Platform::ErrorAddressFamilyNotSupported) {
      m_log.Error("UDP destinations are IPv4 only, and %s has only IPv6 addresses.", m_strHost);
    }
    return false;
  }
  m_consecutiveSendFailures = 0;
  m_refusals = 0;
  // What is being stopped takes no more payloads; what it has it can still send.
  m_life.SetOpen(true);
  return true;
}

/// Opens the socket to the first address that takes it. Returns 0 or the callers' error number.
int UDPSocket::OpenSocket() {
  m_strDestination = WindowsAgentCommon::Format("%s:%u", m_strHost, m_port);
  // Resolved anew each time: the target may have moved, and the network may not have been there before.
  const Platform::ResolvedHost target = ResolveTarget(Platform::AddressFamily::IPv4);
  if (target.m_error != 0) {
    const bool isOtherFamily =
        target.m_error == Platform::ErrorHostNotFound && ResolveTarget(Platform::AddressFamily::Any).m_error == 0;
    return isOtherFamily ? Platform::ErrorAddressFamilyNotSupported : target.m_error;
  }
  int error = Platform::ErrorHostNotFound;
  for (const ACE_INET_Addr& address : target.m_addresses) {
    std::shared_ptr<ACE_SOCK_CODgram> socket(new ACE_SOCK_CODgram, [](ACE_SOCK_CODgram* last) {
      last->close();
      delete last;
    });
    socket->set_handle(Platform::OpenSocket(AF_INET, SOCK_DGRAM));
    if (socket->get_handle() != ACE_INVALID_HANDLE &&
        ACE_OS::connect(socket->get_handle(), static_cast<sockaddr*>(address.get_addr()), address.get_size()) == 0 &&
        socket->enable(ACE_NONBLOCK) == 0) {
      m_pSocket = std::move(socket);
      return 0;
    }
    error = Platform::LastSocketError();
    char text[64] = {};
    if (address.addr_to_string(text, sizeof text) == 0) m_strDestination = text;
  }
  return error;
}

Platform::DatagramOutcome UDPSocket::SendDatagrams(std::span<const Payload> payloads) {
  return Platform::SendDatagrams(m_pSocket->get_handle(), payloads);
}

/// Sends, and waits whenever the system has no room.
Platform::DatagramOutcome UDPSocket::SendAllDatagrams(std::span<const Payload> payloads) {
  Platform::DatagramOutcome outcome;
  for (;;) {
    const Platform::DatagramOutcome part = SendDatagrams(payloads.subspan(outcome.m_datagrams));
    outcome.m_datagrams += part.m_datagrams;
    outcome.m_error = part.m_error;
    if (part.m_datagrams > 0) NoteProgress();
    if (outcome.m_error != Platform::ErrorWouldBlock) return outcome;
    outcome.m_error = WaitUntilReady(m_pSocket->get_handle(), Readiness::Writable, [this] { return MustGiveUp(); });
    if (outcome.m_error != 0) return outcome;
  }
}

/// Sends and counts; a failure has been dealt with when it returns, but for the pause.
Platform::DatagramOutcome UDPSocket::TrySend(std::span<const Payload> payloads) {
  const ConnectionTurn::Holder turn(m_turn);
  Platform::DatagramOutcome outcome{0, Platform::ErrorNotConnected};
  if (m_pSocket) {
    // A payload without a byte is none that could be seen to be sent.
    const auto empty = std::ranges::find_if(payloads, [](const Payload& payload) { return payload.empty(); });
    outcome = SendAllDatagrams(payloads.first(static_cast<std::size_t>(empty - payloads.begin())));
    if (outcome.m_error == 0 && empty != payloads.end()) outcome.m_error = Platform::ErrorInvalidArgument;
  }
  std::size_t bytes = 0;
  for (const Payload& payload : payloads.first(outcome.m_datagrams)) bytes += payload.size();
  CountSent(outcome.m_datagrams, bytes);
  if (outcome.m_error == 0) {
    m_lastResultCode = 0;
  } else {
    CountFailure(outcome.m_error);
  }
  return outcome;
}

std::int32_t UDPSocket::SendPayload(const void* buffer, std::uint32_t length) {
  const Payload payload(static_cast<const char*>(buffer), length);
  if (TrySend({&payload, 1}).m_error == 0) return static_cast<std::int32_t>(length);
  Pause(failurePause);
  return -2;
}

std::size_t UDPSocket::SendPayloads(const FramedPayloads& payloads, bool) {
  m_payloads.clear();
  const char* begin = payloads.m_bytes.data();
  for (const std::uint32_t length : payloads.m_lengths) {
    m_payloads.emplace_back(begin, length);
    begin += length;
  }
  const Platform::DatagramOutcome outcome = TrySend(m_payloads);
  std::size_t done = outcome.m_datagrams;
  if (outcome.m_error != 0) {
    Pause(failurePause);
    // What can never be sent would stand before all others for ever.
    const bool isUndeliverable = outcome.m_error == Platform::ErrorMessageTooLong || m_payloads[done].empty();
    if (isUndeliverable) CountDropped(1, m_payloads[done++].size());
  }
  return done;
}

void UDPSocket::CountFailure(int error) {
  m_lastResultCode = error;
  m_consecutiveSendFailures += 1;
  if (m_consecutiveSendFailures == 1) {
    m_log.Error(
        "A socket error occurred that was not a simple wouldblock (errno = %d) for UDP connection %s:%d (will attempt "
        "to reconnect later).",
        error, m_strHost, m_port);
  } else if (m_consecutiveSendFailures % failuresPerReconnect == 0) {
    Reconnect();
  }
}

void UDPSocket::Reconnect() {
  m_log.Info("Attempting reconnect for UDP connection %s:%d...", m_strHost, m_port);
  if (ConnectInTurn()) {
    m_log.Info("Reconnect for UDP connection %s:%d succeeded.", m_strHost, m_port);
  } else {
    m_log.Error("Reconnect for UDP connection %s:%d failed (errno = %d). Will try again later.", m_strHost, m_port,
                GetLastResultCode());
  }
}

void UDPSocket::ReportRefusal() {
  // A socket that is not open sends nothing that could fail. A name that was unknown when the agent started, say, has
  // to be found all the same once the network is there.
  if (!m_bWanted || ++m_refusals % failuresPerReconnect != 0) return;
  if (IsQueued()) {
    m_bReconnectDue = true;
    return;
  }
  const ConnectionTurn::Holder turn(m_turn);
  if (m_bWanted && !m_life.IsOpen()) Reconnect();
}

void UDPSocket::ReportIdle() {
  if (!m_bReconnectDue.exchange(false)) return;
  const ConnectionTurn::Holder turn(m_turn);
  if (m_bWanted && !m_life.IsOpen() && !m_life.IsStopping()) Reconnect();
}

std::uint32_t UDPSocket::GetConsecutiveSendFailures() const { return m_consecutiveSendFailures; }

bool UDPSocket::IsOpenWithoutConnection() const { return false; }

void UDPSocket::NameLogger() {}

std::uint32_t UDPSocket::BlockingLength(std::uint32_t, std::uint32_t limited) const { return limited; }

void UDPSocket::ReportTruncation(std::uint32_t length, std::uint32_t limited) {
  m_log.Debug("Truncating payload from %d bytes to %d bytes.", length, limited);
}

void UDPSocket::LookForProgress() {}

bool UDPSocket::CanDeliver() {
  const ConnectionTurn::Holder turn(m_turn);
  return !MustGiveUp() && m_pSocket;
}

}  // namespace VaroCommunicationAPI
