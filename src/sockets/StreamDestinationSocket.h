// What the destination sockets over a stream share: timed reconnects, framing, keep-alive and connection times.
#pragma once

#include "sockets/DestinationSocket.h"
#include "sockets/SocketStream.h"

#include <host/ITCPSocket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace VaroCommunicationAPI {

/// A point of wall-clock time that one thread writes and others read.
class SharedTimeValue {
 public:
  void operator=(const ACE_Time_Value& value);
  operator ACE_Time_Value() const;

 private:
  RelaxedValue<std::int64_t> m_microseconds{0};
};

/// What differs between destinations over a stream.
struct StreamTransport {
  const char* m_loggerName;  ///< this and the next two as in `DestinationTraits`
  const char* m_className;
  const char* m_receiveFunction;
  const char* m_keepAliveWarning;  ///< keep-alive could not be set; a format with the reason
  StreamMaker m_makeStream;
  /// Reads the parameters that only this transport has. May be empty.
  std::function<void(const WindowsAgentCommon::EnvironmentBlockHelper& parameters)> m_readParameters;
};

/// Sends payloads over one stream after another. Operations on a stream are serialised; `Close` and `Connect` in one
/// thread end what another waits for.
class StreamSender {
 public:
  using Interface = WindowsAgentCommon::ITCPSocket;

  StreamSender(DestinationState& state, StreamTransport transport);

  void Configure(const WindowsAgentCommon::EnvironmentBlockHelper& helper, const DestinationParameters& common);
  /// While a send thread is running, tries for at most a second.
  bool Connect();
  void Close();
  bool IsConnected() const;
  std::int32_t SendPayload(std::span<const char> payload);
  std::size_t SendPayloads(const FramedPayloads& payloads);
  void Idle();
  bool CanDeliver();
  void Finish();

  ACE_Time_Value LastConnectAttemptTime() const { return m_lastConnectAttemptTime; }
  ACE_Time_Value ConnectedSinceTime() const { return m_connectedSinceTime; }
  ACE_Time_Value LastConnectFailureTime() const { return m_lastConnectFailureTime; }
  ACE_Time_Value NextReconnectTime() const { return m_nextReconnectTime; }

 private:
  /// What happened to a batch.
  struct Outcome {
    std::size_t m_payloads = 0;            ///< accepted whole, counted from the first
    std::size_t m_bytes = 0;               ///< their bytes, with as much of their framing as was accepted
    bool m_bTorn = false;                  ///< the accepted bytes end within a payload or before its line feed
    bool m_bConnected = true;              ///< false when there was no connection to write to
    std::chrono::milliseconds m_pause{0};  ///< time to wait before the next attempt
  };

  bool MustGiveUp();
  bool ConnectInTurn();
  void CloseInTurn();
  Outcome SendAndPause(const FramedPayloads& payloads, bool isAfterIdle);
  Outcome TrySend(const FramedPayloads& payloads, bool isAfterIdle);
  Outcome Write(const FramedPayloads& payloads, SteadyTime now);
  FramedPayloads FirstOf(const FramedPayloads& payloads) const;
  void CloseIfPeerHasClosed(SteadyTime now, bool isAfterIdle);
  bool Reconnect(SteadyTime now);
  Outcome CountAccepted(std::span<const std::uint32_t> lengths, std::size_t acceptedBytes);
  std::chrono::milliseconds HandleWriteError(SocketError error, bool isTorn, SteadyTime now);
  void ReportLostConnection(SocketError error, SteadyTime now);
  void SetLastError(SocketError error);
  void SetNextReconnect(SteadyTime when);

  DestinationState& m_state;
  const StreamTransport m_transport;
  const IsInterrupted m_mustGiveUp = [this] { return MustGiveUp(); };
  const std::function<void()> m_noteProgress = [this] { m_state.NoteProgress(); };

  bool m_bKeepAliveEnabled = false;
  std::uint32_t m_keepAliveTimeMs = 0;
  std::uint32_t m_keepAliveIntervalMs = 0;

  /// Used by the send thread only: it has had nothing to send.
  bool m_bAfterIdle = false;

  // Belongs to the holder of the turn.
  std::unique_ptr<ISocketStream> m_pStream;  ///< null when not connected
  SocketError m_lastError;
  SteadyTime m_lastWrite;
  SteadyTime m_lastLook;
  std::optional<std::uint64_t> m_progress;
  std::optional<SteadyTime> m_connectDeadline;  ///< when the present attempt to connect has to end
  bool m_bLastAttemptFailed = false;
  SteadyTime m_nextReconnect;

  RelaxedValue<bool> m_bConnected{false};
  SharedTimeValue m_lastConnectAttemptTime;
  SharedTimeValue m_connectedSinceTime;
  SharedTimeValue m_lastConnectFailureTime;
  SharedTimeValue m_nextReconnectTime;
};

class StreamDestinationSocket : public DestinationSocket<StreamSender> {
 public:
  StreamDestinationSocket(const StreamTransport& transport, SocketServices services);

  ACE_Time_Value GetLastConnectAttemptTime() const override;
  ACE_Time_Value GetConnectedSinceTime() const override;
  ACE_Time_Value GetLastConnectFailureTime() const override;
  ACE_Time_Value GetNextReconnectTime() const override;
};

}  // namespace VaroCommunicationAPI
