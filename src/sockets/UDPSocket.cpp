#include "sockets/UDPSocket.h"

#include "sockets/SocketStream.h"

#include <host/LoggerFactory.h>

#include <ace/OS_NS_sys_socket.h>

#include <algorithm>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr const char* loggerName = "Code.UDPSocket";
constexpr std::uint32_t failuresPerReconnect = 500;
constexpr auto failurePause = 1000ms;

}  // namespace

DatagramSender::DatagramSender(DestinationState& state) : m_state(state) {
  m_state.m_log = WindowsAgentCommon::LoggerFactory::GetLogger(loggerName);
}

void DatagramSender::Configure(const WindowsAgentCommon::EnvironmentBlockHelper&, const DestinationParameters& common) {
  m_state.m_log.Debug("UDPSocket addr:%S port:%d maxPayload:%d builder:%s", common.m_strHost, common.m_port,
                      common.m_maxPayloadSize, common.m_strBuilderType);
}

void DatagramSender::Close() {
  m_bWanted = false;
  const ConnectionTurn::Holder turn(m_state.m_turn, m_state.Now());
  CloseSocket();
}

void DatagramSender::Finish() { Close(); }

void DatagramSender::CloseSocket() {
  m_state.m_life.SetOpen(false);
  m_pSocket.reset();
}

bool DatagramSender::IsConnected() const { return m_state.m_life.IsOpen(); }

bool DatagramSender::Connect() {
  const ConnectionTurn::Holder turn(m_state.m_turn, m_state.Now());
  m_bWanted = true;
  return ConnectInTurn();
}

bool DatagramSender::ConnectInTurn() {
  CloseSocket();
  const SocketError error = OpenSocket();
  m_state.m_lastResultCode = error.Number();
  if (error) {
    m_state.m_log.Error("Unable to open UDPSocket %S errorno %d", m_strDestination, error.Number());
    if (error == Platform::ErrorAddressFamilyNotSupported) {
      m_state.m_log.Error("UDP destinations are IPv4 only, and %s has only IPv6 addresses.", m_state.m_strHost);
    }
    return false;
  }
  m_consecutiveSendFailures = 0;
  m_refusals = 0;
  // A socket that is being stopped accepts no more payloads; what it has it can still send.
  m_state.m_life.SetOpen(true);
  return true;
}

/// Opens the socket to the first address that works.
SocketError DatagramSender::OpenSocket() {
  m_strDestination = WindowsAgentCommon::Format("%s:%u", m_state.m_strHost, m_state.m_port);
  const Platform::ResolvedHost target = m_state.ResolveTarget(Platform::AddressFamily::IPv4, m_mustGiveUp);
  if (target.m_error) {
    const bool isOtherFamily = target.m_error == Platform::ErrorHostNotFound &&
                               !m_state.ResolveTarget(Platform::AddressFamily::Any, m_mustGiveUp).m_error;
    return isOtherFamily ? Platform::ErrorAddressFamilyNotSupported : target.m_error;
  }
  SocketError error = Platform::ErrorHostNotFound;
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
      return {};
    }
    error = Platform::LastSocketError();
    char text[64] = {};
    if (address.addr_to_string(text, sizeof text) == 0) m_strDestination = text;
  }
  return error;
}

/// Sends, waiting whenever the system has no room.
Platform::DatagramOutcome DatagramSender::SendAllDatagrams(std::span<const Payload> payloads) {
  Platform::DatagramOutcome outcome;
  for (;;) {
    const Platform::DatagramOutcome part =
        m_state.m_services.m_sendDatagrams(m_pSocket->get_handle(), payloads.subspan(outcome.m_datagrams));
    outcome.m_datagrams += part.m_datagrams;
    outcome.m_error = part.m_error;
    if (part.m_datagrams > 0) m_state.NoteProgress();
    if (outcome.m_error != Platform::ErrorWouldBlock) return outcome;
    outcome.m_error = WaitUntilReady(m_pSocket->get_handle(), Readiness::Writable, m_mustGiveUp);
    if (outcome.m_error) return outcome;
  }
}

/// Sends and counts; also handles a failure, except for the pause.
Platform::DatagramOutcome DatagramSender::TrySend(std::span<const Payload> payloads) {
  const ConnectionTurn::Holder turn(m_state.m_turn);
  Platform::DatagramOutcome outcome{0, Platform::ErrorNotConnected};
  if (m_pSocket) {
    // Nobody could see that an empty payload was sent.
    const auto empty = std::ranges::find_if(payloads, [](const Payload& payload) { return payload.empty(); });
    outcome = SendAllDatagrams(payloads.first(static_cast<std::size_t>(empty - payloads.begin())));
    if (!outcome.m_error && empty != payloads.end()) outcome.m_error = Platform::ErrorInvalidArgument;
  }
  std::size_t bytes = 0;
  for (const Payload& payload : payloads.first(outcome.m_datagrams)) bytes += payload.size();
  m_state.m_sent.Add(outcome.m_datagrams, bytes);
  m_state.m_lastResultCode = outcome.m_error.Number();
  if (outcome.m_error) CountFailure(outcome.m_error);
  return outcome;
}

std::int32_t DatagramSender::SendPayload(std::span<const char> payload) {
  if (!TrySend({&payload, 1}).m_error) return static_cast<std::int32_t>(payload.size());
  m_state.Pause(failurePause);
  return -2;
}

std::size_t DatagramSender::SendPayloads(const FramedPayloads& payloads) {
  m_payloads.clear();
  const char* begin = payloads.m_bytes.data();
  for (const std::uint32_t length : payloads.m_lengths) {
    m_payloads.emplace_back(begin, length);
    begin += length;
  }
  const Platform::DatagramOutcome outcome = TrySend(m_payloads);
  std::size_t done = outcome.m_datagrams;
  if (outcome.m_error) {
    m_state.Pause(failurePause);
    // A payload that can never be sent would block all others indefinitely.
    const bool isUndeliverable = outcome.m_error == Platform::ErrorMessageTooLong || m_payloads[done].empty();
    if (isUndeliverable) m_state.m_dropped.Add(1, m_payloads[done++].size());
  }
  return done;
}

void DatagramSender::CountFailure(SocketError error) {
  m_consecutiveSendFailures += 1;
  if (m_consecutiveSendFailures == 1) {
    m_state.m_log.Error(
        "A socket error occurred that was not a simple wouldblock (errno = %d) for UDP connection %s:%d (will attempt "
        "to reconnect later).",
        error.Number(), m_state.m_strHost, m_state.m_port);
  } else if (m_consecutiveSendFailures % failuresPerReconnect == 0) {
    Reconnect();
  }
}

void DatagramSender::Reconnect() {
  m_state.m_log.Info("Attempting reconnect for UDP connection %s:%d...", m_state.m_strHost, m_state.m_port);
  if (ConnectInTurn()) {
    m_state.m_log.Info("Reconnect for UDP connection %s:%d succeeded.", m_state.m_strHost, m_state.m_port);
  } else {
    m_state.m_log.Error("Reconnect for UDP connection %s:%d failed (errno = %d). Will try again later.",
                        m_state.m_strHost, m_state.m_port, static_cast<std::int32_t>(m_state.m_lastResultCode));
  }
}

void DatagramSender::CountRefusal(bool isQueued) {
  // A socket that is not open sends nothing that could fail. Yet a name that was unknown when the agent started, for
  // example, has to be found once the network is up.
  if (!m_bWanted || ++m_refusals % failuresPerReconnect != 0) return;
  if (isQueued) {
    m_bReconnectDue = true;
  } else {
    ReconnectIfWanted();
  }
}

void DatagramSender::Idle() {
  if (m_bReconnectDue.exchange(false)) ReconnectIfWanted();
}

void DatagramSender::ReconnectIfWanted() {
  const SocketLife::Operation operation(m_state.m_life);
  if (!operation) return;
  const ConnectionTurn::Holder turn(m_state.m_turn);
  if (m_bWanted && !IsConnected()) Reconnect();
}

bool DatagramSender::CanDeliver() {
  const ConnectionTurn::Holder turn(m_state.m_turn);
  return !m_state.MustGiveUp() && m_pSocket;
}

UDPSocket::UDPSocket(SocketServices services)
    : DestinationSocket({.m_loggerName = loggerName,
                         .m_className = "UDPSocket",
                         .m_receiveFunction = "VaroCommunicationAPI::UDPSocket::Receive",
                         .m_defaultMaxPayloadSize = 1020,
                         .m_bOpensUnconnected = false,
                         .m_bCutsWhenBlocking = true,
                         .m_truncationReport = "Truncating payload from %d bytes to %d bytes."},
                        std::move(services)) {}

UDPSocket::~UDPSocket() { EndLife(); }

std::int32_t UDPSocket::Send(const void* buffer, std::uint32_t length) {
  const bool isRefused = !IsOpen();
  const std::int32_t result = DestinationSocket::Send(buffer, length);
  if (isRefused && result == -1) m_sender.CountRefusal(IsQueued());
  return result;
}

std::uint32_t UDPSocket::GetConsecutiveSendFailures() const { return m_sender.ConsecutiveSendFailures(); }

}  // namespace VaroCommunicationAPI
