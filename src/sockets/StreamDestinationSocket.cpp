#include "sockets/StreamDestinationSocket.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t defaultMaxPayloadSize = 32'000;
constexpr auto reconnectInterval = 15s;
constexpr auto disconnectedPause = 1000ms;
constexpr auto timeoutPause = 100ms;

/// A connection is checked before a write if the last write or the last check was longer ago than this.
constexpr auto trustedSilence = 1s;

/// How long another thread may try to connect while there is a send thread, which tries without limit.
constexpr auto claimedConnectLimit = 1s;

constexpr std::int64_t microsecondsPerSecond = 1'000'000;

}  // namespace

void SharedTimeValue::operator=(const ACE_Time_Value& value) {
  m_microseconds = static_cast<std::int64_t>(value.sec()) * microsecondsPerSecond + value.usec();
}

SharedTimeValue::operator ACE_Time_Value() const {
  const std::int64_t microseconds = m_microseconds;
  return ACE_Time_Value(static_cast<time_t>(microseconds / microsecondsPerSecond),
                        static_cast<suseconds_t>(microseconds % microsecondsPerSecond));
}

StreamSender::StreamSender(DestinationState& state, StreamTransport transport)
    : m_state(state), m_transport(std::move(transport)) {
  m_state.m_framing = Framing(Framing::Kind::LineFeed);
}

void StreamSender::Configure(const WindowsAgentCommon::EnvironmentBlockHelper& helper, const DestinationParameters&) {
  helper.GetBooleanValue("Socket.KeepAlive.Enabled", m_bKeepAliveEnabled, false);
  helper.GetUInt32Value("Socket.KeepAlive.Time", m_keepAliveTimeMs, 60000);
  helper.GetUInt32Value("Socket.KeepAlive.Interval", m_keepAliveIntervalMs, 5000);
  bool appendsLineFeed = true;
  helper.GetBooleanValue("AppendLineFeed", appendsLineFeed, true);
  std::string framing;
  helper.GetStringValue("Framing", framing, "LineFeed");
  Framing::Kind kind = Framing::Parse(framing).value_or(Framing::Kind::LineFeed);
  if (kind == Framing::Kind::LineFeed && !appendsLineFeed) kind = Framing::Kind::None;
  m_state.m_framing = Framing(kind);
  if (m_transport.m_readParameters) m_transport.m_readParameters(helper);
}

bool StreamSender::MustGiveUp() {
  // Called about ten times a second during a wait.
  if (m_state.m_life.IsStopping() && m_pStream) {
    if (const auto progress = m_state.m_services.m_peerProgress(m_pStream->Handle()); progress != m_progress) {
      m_progress = progress;
      m_state.NoteProgress();
    }
  }
  return m_state.MustGiveUp() || (m_connectDeadline && m_state.Now() > *m_connectDeadline);
}

void StreamSender::Close() {
  const ConnectionTurn::Holder turn(m_state.m_turn, m_state.Now());
  CloseInTurn();
}

void StreamSender::CloseInTurn() {
  m_bConnected = false;
  m_pStream.reset();
}

void StreamSender::Finish() {
  const ConnectionTurn::Holder turn(m_state.m_turn, m_state.Now());
  if (m_pStream && !MustGiveUp()) m_pStream->Finish(m_mustGiveUp);
  CloseInTurn();
}

bool StreamSender::IsConnected() const { return m_bConnected; }

bool StreamSender::Connect() {
  const ConnectionTurn::Holder turn(m_state.m_turn, m_state.Now());
  if (m_state.m_life.IsServing()) m_connectDeadline = m_state.Now() + claimedConnectLimit;
  const bool isConnected = ConnectInTurn();
  m_connectDeadline.reset();
  return isConnected;
}

bool StreamSender::ConnectInTurn() {
  CloseInTurn();
  m_bLastAttemptFailed = m_state.m_life.IsStopping();
  const ACE_Time_Value attemptTime = m_state.m_services.m_pTime->WallClock();
  m_lastConnectAttemptTime = attemptTime;
  std::unique_ptr<ISocketStream> stream = m_transport.m_makeStream(m_state.m_log);
  if (!stream) return false;
  const Platform::ResolvedHost target = m_state.ResolveTarget(Platform::AddressFamily::Any, m_mustGiveUp);
  const SocketError error =
      target.m_error ? target.m_error : stream->Connect(target.m_addresses, m_state.m_strHost, m_mustGiveUp);
  stream->ReportConnect(m_state.m_log, error);
  SetLastError(error);
  if (error) {
    m_lastConnectFailureTime = attemptTime;
    return false;
  }
  if (m_bKeepAliveEnabled) {
    const SocketError refusal =
        m_state.m_services.m_setKeepAlive(stream->Handle(), m_keepAliveTimeMs, m_keepAliveIntervalMs);
    if (refusal) m_state.m_log.Warn(m_transport.m_keepAliveWarning, refusal.Text());
  }
  m_pStream = std::move(stream);
  m_bConnected = true;
  m_bLastAttemptFailed = false;
  m_nextReconnect = {};
  m_nextReconnectTime = ACE_Time_Value::zero;
  m_connectedSinceTime = attemptTime;
  m_lastWrite = m_lastLook = m_state.Now();
  return true;
}

std::int32_t StreamSender::SendPayload(std::span<const char> payload) {
  // Each caller has its own buffer: another may hold the turn.
  const Framing& framing = m_state.m_framing;
  std::vector<char> framed(payload.size() + framing.AddedBytes(payload.size()));
  framing.Write(payload, framed.data());
  const auto length = static_cast<std::uint32_t>(payload.size());
  const Outcome outcome = SendAndPause({framed, {&length, 1}}, false);
  if (!outcome.m_bConnected) return -2;
  return outcome.m_payloads == 1 ? static_cast<std::int32_t>(outcome.m_bytes) : -1;
}

std::size_t StreamSender::SendPayloads(const FramedPayloads& payloads) {
  return SendAndPause(payloads, std::exchange(m_bAfterIdle, false)).m_payloads;
}

void StreamSender::Idle() { m_bAfterIdle = true; }

StreamSender::Outcome StreamSender::SendAndPause(const FramedPayloads& payloads, bool isAfterIdle) {
  const Outcome outcome = TrySend(payloads, isAfterIdle);
  if (outcome.m_pause.count() > 0) m_state.Pause(outcome.m_pause);
  return outcome;
}

StreamSender::Outcome StreamSender::TrySend(const FramedPayloads& payloads, bool isAfterIdle) {
  const ConnectionTurn::Holder turn(m_state.m_turn);
  const SteadyTime now = m_state.Now();
  CloseIfPeerHasClosed(now, isAfterIdle);
  if (!m_pStream) {
    if (!Reconnect(now)) return {.m_bConnected = false, .m_pause = disconnectedPause};
    // A receiver that accepts and closes at once costs one payload, not a batch.
    return Write(FirstOf(payloads), now);
  }
  return Write(payloads, now);
}

FramedPayloads StreamSender::FirstOf(const FramedPayloads& payloads) const {
  const std::uint32_t length = payloads.m_lengths.front();
  return {payloads.m_bytes.first(length + m_state.m_framing.AddedBytes(length)), payloads.m_lengths.first(1)};
}

StreamSender::Outcome StreamSender::Write(const FramedPayloads& payloads, SteadyTime now) {
  const SteadyTime lastProgress = m_state.LastProgress();
  const Platform::WriteOutcome written =
      m_pStream->Write(payloads.m_bytes.data(), payloads.m_bytes.size(), m_mustGiveUp, m_noteProgress);
  Outcome outcome = CountAccepted(payloads.m_lengths, written.m_bytes);
  SetLastError(written.m_error);
  if (!written.m_error) {
    m_lastWrite = now;
  } else {
    // Part of a payload that starts again on another connection is no progress: a stop would go on for as long as the
    // peer takes that part again and again.
    if (outcome.m_payloads == 0) m_state.SetLastProgress(lastProgress);
    outcome.m_pause = HandleWriteError(written.m_error, outcome.m_bTorn, now);
  }
  return outcome;
}

void StreamSender::CloseIfPeerHasClosed(SteadyTime now, bool isAfterIdle) {
  // A payload written to a closed connection would be lost without an error. And what a receiver sends has to be read
  // now and then, or it waits for that and stops reading.
  if (!m_pStream) return;
  if (!isAfterIdle && now - m_lastWrite <= trustedSilence && now - m_lastLook <= trustedSilence) return;
  m_lastLook = now;
  if (const SocketError error = m_pStream->PeerState()) {
    SetLastError(error);
    ReportLostConnection(error, now);
  }
}

bool StreamSender::Reconnect(SteadyTime now) {
  // A stop makes one last attempt, even if none is due.
  const bool isLastAttempt = m_state.m_life.IsStopping() && !m_bLastAttemptFailed;
  if (now < m_nextReconnect && !isLastAttempt) return false;
  m_state.m_log.Debug("Socket isn't connected; calling reconnect...");
  if (ConnectInTurn()) {
    m_state.m_log.Info("Reconnect succeeded.");
    return true;
  }
  SetNextReconnect(now + reconnectInterval);
  m_state.m_log.Warn("Reconnect failed; will try again later. Reason: %s", m_lastError.Text());
  return false;
}

StreamSender::Outcome StreamSender::CountAccepted(std::span<const std::uint32_t> lengths, std::size_t acceptedBytes) {
  Outcome outcome;
  std::size_t end = 0;
  for (const std::uint32_t length : lengths) {
    if (end + m_state.m_framing.NeededBytes(length) > acceptedBytes) break;
    end += length + m_state.m_framing.AddedBytes(length);
    ++outcome.m_payloads;
  }
  outcome.m_bytes = std::min(end, acceptedBytes);
  outcome.m_bTorn = end != acceptedBytes;
  m_state.m_sent.Add(outcome.m_payloads, outcome.m_bytes);
  return outcome;
}

std::chrono::milliseconds StreamSender::HandleWriteError(SocketError error, bool isTorn, SteadyTime now) {
  m_state.m_log.Error("Error sending data: %d", error.Number());
  std::chrono::milliseconds pause{0};
  if (error == Platform::ErrorWaitTimeout) {
    m_state.m_log.Debug("Socket timeout.");
    pause = timeoutPause;
  } else if (error == Platform::ErrorWouldBlock) {
    m_state.m_log.Debug("Would block.");
  } else {
    ReportLostConnection(error, now);
    return pause;
  }
  // Anything after part of a payload on this connection would be torn: the payload starts again on another.
  if (isTorn) {
    CloseInTurn();
    SetNextReconnect(now);
  }
  return pause;
}

void StreamSender::ReportLostConnection(SocketError error, SteadyTime now) {
  m_state.m_log.Warn("Socket connection problem (error = '%s'). Trying to reconnect...", error.Text());
  CloseInTurn();
  SetNextReconnect(now);
}

void StreamSender::SetLastError(SocketError error) {
  m_lastError = error;
  m_state.m_lastResultCode = error.Number();
}

void StreamSender::SetNextReconnect(SteadyTime when) {
  m_nextReconnect = when;
  const auto delay = std::chrono::duration_cast<std::chrono::microseconds>(when - m_state.Now());
  m_nextReconnectTime =
      m_state.m_services.m_pTime->WallClock() + ACE_Time_Value(0, static_cast<suseconds_t>(delay.count()));
}

bool StreamSender::CanDeliver() {
  const ConnectionTurn::Holder turn(m_state.m_turn);
  return !MustGiveUp() && (m_pStream || !m_bLastAttemptFailed);
}

StreamDestinationSocket::StreamDestinationSocket(const StreamTransport& transport, SocketServices services)
    : DestinationSocket({.m_loggerName = transport.m_loggerName,
                         .m_className = transport.m_className,
                         .m_receiveFunction = transport.m_receiveFunction,
                         .m_defaultMaxPayloadSize = defaultMaxPayloadSize,
                         .m_bOpensUnconnected = true,
                         // Deliberately: the blocking strategy counts what the limit would cut, but does not cut it.
                         .m_bCutsWhenBlocking = false,
                         .m_truncationReport = nullptr},
                        std::move(services), transport) {}

ACE_Time_Value StreamDestinationSocket::GetLastConnectAttemptTime() const { return m_sender.LastConnectAttemptTime(); }

ACE_Time_Value StreamDestinationSocket::GetConnectedSinceTime() const { return m_sender.ConnectedSinceTime(); }

ACE_Time_Value StreamDestinationSocket::GetLastConnectFailureTime() const { return m_sender.LastConnectFailureTime(); }

ACE_Time_Value StreamDestinationSocket::GetNextReconnectTime() const { return m_sender.NextReconnectTime(); }

}  // namespace VaroCommunicationAPI
