#include "sockets/StreamDestinationSocket.h"

#include "platform/SocketErrors.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/SystemError.h>

#include <algorithm>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t defaultMaxPayloadSize = 32'000;
constexpr auto reconnectInterval = 15s;
constexpr auto disconnectedPause = 1000ms;
constexpr auto timeoutPause = 100ms;

/// A connection on which nothing was written for longer, or that was looked at longer ago, is looked at before it is
/// written to.
constexpr auto trustedSilence = 1s;

/// How long another thread may try to connect while there is a send thread, which tries as long as it takes.
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

StreamDestinationSocket::StreamDestinationSocket(std::shared_ptr<ISocketTime> time)
    : DestinationSocket(defaultMaxPayloadSize, std::move(time)) {
  SetFraming(Framing(Framing::Kind::LineFeed));
}

void StreamDestinationSocket::ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) {
  parameters.GetBooleanValue("Socket.KeepAlive.Enabled", m_bKeepAliveEnabled, false);
  parameters.GetUInt32Value("Socket.KeepAlive.Time", m_keepAliveTimeMs, 60000);
  parameters.GetUInt32Value("Socket.KeepAlive.Interval", m_keepAliveIntervalMs, 5000);
  bool appendsLineFeed = true;
  parameters.GetBooleanValue("AppendLineFeed", appendsLineFeed, true);
  std::string framing;
  parameters.GetStringValue("Framing", framing, "LineFeed");
  Framing::Kind kind = Framing::Parse(framing).value_or(Framing::Kind::LineFeed);
  if (kind == Framing::Kind::LineFeed && !appendsLineFeed) kind = Framing::Kind::None;
  SetFraming(Framing(kind));
}

void StreamDestinationSocket::Close() {
  m_life.Abandon();
  const ConnectionTurn::Holder turn(m_turn, m_pTime->Now());
  CloseInTurn();
}

void StreamDestinationSocket::CloseInTurn() {
  if (!m_bConnected) return;
  const Platform::BrokenPipeGuard noSignal;
  CloseStream();
  m_bConnected = false;
}

void StreamDestinationSocket::FinishConnection() {
  const ConnectionTurn::Holder turn(m_turn, m_pTime->Now());
  const Platform::BrokenPipeGuard noSignal;
  if (m_bConnected && !MustGiveUp()) FinishStream();
  CloseInTurn();
}

void StreamDestinationSocket::LookForProgress() {
  if (!m_bConnected) return;
  if (const auto progress = StreamProgress(); progress != m_progress) {
    m_progress = progress;
    NoteProgress();
  }
}

bool StreamDestinationSocket::IsConnected() const { return m_bConnected; }

Platform::ResolvedHost StreamDestinationSocket::ResolveTarget() {
  return Platform::ResolveHost(m_strHost, m_port, Platform::AddressFamily::Any, [this] { return MustGiveUp(); });
}

bool StreamDestinationSocket::Connect() {
  const SocketLife::Operation operation(m_life);
  if (!operation) return false;
  const ConnectionTurn::Holder turn(m_turn, m_pTime->Now());
  if (m_life.IsServing()) m_connectDeadline = m_pTime->Now() + claimedConnectLimit;
  const bool isConnected = ConnectInTurn();
  m_connectDeadline.reset();
  return isConnected;
}

bool StreamDestinationSocket::ConnectInTurn() {
  CloseInTurn();
  m_bLastAttemptFailed = m_life.IsStopping();
  const ACE_Time_Value attemptTime = m_pTime->WallClock();
  m_lastConnectAttemptTime = attemptTime;
  const Platform::BrokenPipeGuard noSignal;
  if (!PrepareStream()) return false;
  // Resolved anew each time: the target may have moved, and the network may not have been there before.
  const Platform::ResolvedHost target = ResolveTarget();
  const int error = target.m_error != 0 ? target.m_error : OpenStream(target.m_addresses);
  if (error != 0) {
    ReportConnectFailure(error);
    return FailConnect(error, attemptTime);
  }
  if (m_bKeepAliveEnabled) {
    if (const int keepAliveError = SetStreamKeepAlive(m_keepAliveTimeMs, m_keepAliveIntervalMs); keepAliveError != 0) {
      m_log.Warn(KeepAliveWarning(), WindowsAgentCommon::GetLastErrorText(keepAliveError));
    }
  }
  m_bConnected = true;
  m_bLastAttemptFailed = false;
  m_lastResultCode = 0;
  m_nextReconnect = {};
  m_nextReconnectTime = ACE_Time_Value::zero;
  m_connectedSinceTime = attemptTime;
  m_lastWrite = m_lastLook = m_pTime->Now();
  return true;
}

bool StreamDestinationSocket::FailConnect(int error, const ACE_Time_Value& attemptTime) {
  m_lastResultCode = error;
  m_lastConnectFailureTime = attemptTime;
  return false;
}

bool StreamDestinationSocket::PrepareStream() { return true; }

std::string StreamDestinationSocket::ErrorText(int error) const { return Platform::SocketErrorText(error); }

std::int32_t StreamDestinationSocket::SendPayload(const void* buffer, std::uint32_t length) {
  // A text of its own for each caller: another one may have its turn.
  std::vector<char> framed(length + GetFraming().AddedBytes(length));
  GetFraming().Write({static_cast<const char*>(buffer), length}, framed.data());
  const Outcome outcome = TrySend({framed, {&length, 1}}, false);
  if (outcome.m_pause > 0ms) Pause(outcome.m_pause);
  if (!outcome.m_bConnected) return -2;
  return outcome.m_payloads == 1 ? static_cast<std::int32_t>(outcome.m_bytes) : -1;
}

std::size_t StreamDestinationSocket::SendPayloads(const FramedPayloads& payloads, bool isAfterIdle) {
  const Outcome outcome = TrySend(payloads, isAfterIdle);
  if (outcome.m_pause > 0ms) Pause(outcome.m_pause);
  return outcome.m_payloads;
}

StreamDestinationSocket::Outcome StreamDestinationSocket::TrySend(const FramedPayloads& payloads, bool isAfterIdle) {
  const ConnectionTurn::Holder turn(m_turn);
  const SteadyTime now = m_pTime->Now();
  CloseIfPeerHasClosed(now, isAfterIdle);
  if (!m_bConnected) {
    if (!Reconnect(now)) return {.m_bConnected = false, .m_pause = disconnectedPause};
    // A receiver that accepts and closes at once costs one payload and not a batch.
    return Write(FirstOf(payloads), now);
  }
  return Write(payloads, now);
}

FramedPayloads StreamDestinationSocket::FirstOf(const FramedPayloads& payloads) const {
  const std::uint32_t length = payloads.m_lengths.front();
  return {payloads.m_bytes.first(length + GetFraming().AddedBytes(length)), payloads.m_lengths.first(1)};
}

StreamDestinationSocket::Outcome StreamDestinationSocket::Write(const FramedPayloads& payloads, SteadyTime now) {
  const Platform::WriteOutcome written = WriteStream(payloads.m_bytes.data(), payloads.m_bytes.size());
  Outcome outcome = CountAccepted(payloads.m_lengths, written.m_bytes);
  if (written.m_error == 0) {
    m_lastWrite = now;
    m_lastResultCode = 0;
  } else {
    outcome.m_pause = HandleWriteError(written.m_error, outcome.m_bTorn, now);
  }
  return outcome;
}

void StreamDestinationSocket::CloseIfPeerHasClosed(SteadyTime now, bool isAfterIdle) {
  // A payload written into a closed connection would be lost without an error. And what a receiver says has to be taken
  // from it now and then, or it waits for that and reads no more.
  if (!m_bConnected) return;
  if (!isAfterIdle && now - m_lastWrite <= trustedSilence && now - m_lastLook <= trustedSilence) return;
  m_lastLook = now;
  if (const int error = StreamPeerState(); error != 0) {
    m_lastResultCode = error;
    ReportLostConnection(error, now);
  }
}

bool StreamDestinationSocket::Reconnect(SteadyTime now) {
  // A stop makes one last attempt, also when none is due.
  const bool isLastAttempt = m_life.IsStopping() && !m_bLastAttemptFailed;
  if (now < m_nextReconnect && !isLastAttempt) return false;
  m_log.Debug("Socket isn't connected; calling reconnect...");
  if (ConnectInTurn()) {
    m_log.Info("Reconnect succeeded.");
    return true;
  }
  SetNextReconnect(now + reconnectInterval);
  m_log.Warn("Reconnect failed; will try again later. Reason: %s", ErrorText(m_lastResultCode));
  return false;
}

StreamDestinationSocket::Outcome StreamDestinationSocket::CountAccepted(std::span<const std::uint32_t> lengths,
                                                                        std::size_t acceptedBytes) {
  Outcome outcome;
  std::size_t end = 0;
  for (const std::uint32_t length : lengths) {
    if (end + GetFraming().NeededBytes(length) > acceptedBytes) break;
    end += length + GetFraming().AddedBytes(length);
    ++outcome.m_payloads;
  }
  outcome.m_bytes = std::min(end, acceptedBytes);
  outcome.m_bTorn = end != acceptedBytes;
  CountSent(outcome.m_payloads, outcome.m_bytes);
  return outcome;
}

std::chrono::milliseconds StreamDestinationSocket::HandleWriteError(int error, bool isTorn, SteadyTime now) {
  m_lastResultCode = error;
  m_log.Error("Error sending data: %d", error);
  std::chrono::milliseconds pause{0};
  if (error == Platform::ErrorWaitTimeout) {
    m_log.Debug("Socket timeout.");
    pause = timeoutPause;
  } else if (error == Platform::ErrorWouldBlock) {
    m_log.Debug("Would block.");
  } else {
    ReportLostConnection(error, now);
    return pause;
  }
  // Whatever followed a part of a payload on this connection would be torn: the payload starts anew on another.
  if (isTorn) {
    CloseInTurn();
    SetNextReconnect(now);
  }
  return pause;
}

void StreamDestinationSocket::ReportLostConnection(int error, SteadyTime now) {
  m_log.Warn("Socket connection problem (error = '%s'). Trying to reconnect...", ErrorText(error));
  CloseInTurn();
  SetNextReconnect(now);
}

void StreamDestinationSocket::SetNextReconnect(SteadyTime when) {
  m_nextReconnect = when;
  const auto delay = std::chrono::duration_cast<std::chrono::microseconds>(when - m_pTime->Now());
  m_nextReconnectTime = m_pTime->WallClock() + ACE_Time_Value(0, static_cast<suseconds_t>(delay.count()));
}

void StreamDestinationSocket::AcceptParameters(const std::wstring&, std::uint32_t, std::uint32_t, const std::string&) {}

bool StreamDestinationSocket::IsOpenWithoutConnection() const { return true; }

void StreamDestinationSocket::ReportRefusal() {}

void StreamDestinationSocket::ReportIdle() {}

std::uint32_t StreamDestinationSocket::BlockingLength(std::uint32_t length, std::uint32_t) const {
  // The whole payload, deliberately: this strategy counts what the limit would cut, and does not cut it.
  return length;
}

void StreamDestinationSocket::ReportTruncation(std::uint32_t, std::uint32_t) {}

bool StreamDestinationSocket::CanDeliver() {
  const ConnectionTurn::Holder turn(m_turn);
  return !MustGiveUp() && (m_bConnected || !m_bLastAttemptFailed);
}

ACE_Time_Value StreamDestinationSocket::GetLastConnectAttemptTime() const { return m_lastConnectAttemptTime; }

ACE_Time_Value StreamDestinationSocket::GetConnectedSinceTime() const { return m_connectedSinceTime; }

ACE_Time_Value StreamDestinationSocket::GetLastConnectFailureTime() const { return m_lastConnectFailureTime; }

ACE_Time_Value StreamDestinationSocket::GetNextReconnectTime() const { return m_nextReconnectTime; }

}  // namespace VaroCommunicationAPI
