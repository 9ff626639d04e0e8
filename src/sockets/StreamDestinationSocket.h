// What the destination sockets over a stream share: reconnecting by the clock, framing, keep-alive and the times.
#pragma once

#include "platform/NameResolver.h"
#include "platform/SocketIo.h"
#include "sockets/DestinationSocket.h"

#include <host/ITCPSocket.h>

#include <ace/INET_Addr.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// A point of wall-clock time that one thread writes and others read.
class SharedTimeValue {
 public:
  void operator=(const ACE_Time_Value& value);
  operator ACE_Time_Value() const;

 private:
  RelaxedValue<std::int64_t> m_microseconds{0};
};

/// Derived classes open, write and close the stream. The operations on it are serialised; `Close`, `Connect` and `Open`
/// in one thread end what another one waits for.
class StreamDestinationSocket : public DestinationSocket<WindowsAgentCommon::ITCPSocket> {
 public:
  explicit StreamDestinationSocket(std::shared_ptr<ISocketTime> time);

  /// Ends a stop that another thread waits for as well: what is not delivered is given up.
  void Close() override;
  bool IsConnected() const override;
  /// While a send thread is running, for at most a second. Returns false while another thread stops the socket.
  bool Connect() override;
  std::int32_t SendPayload(const void* buffer, std::uint32_t length) override;
  ACE_Time_Value GetLastConnectAttemptTime() const override;
  ACE_Time_Value GetConnectedSinceTime() const override;
  ACE_Time_Value GetLastConnectFailureTime() const override;
  ACE_Time_Value GetNextReconnectTime() const override;

 protected:
  /// Gets ready to connect. Returns false, with the reason reported, when no attempt can be made; nothing else is then
  /// noted of it.
  virtual bool PrepareStream();

  /// Connects the stream to the first address that accepts. Returns 0 or the callers' error number, and then leaves no
  /// stream behind. Gives up when `MustGiveUp` says so.
  virtual int OpenStream(const std::vector<ACE_INET_Addr>& addresses) = 0;

  /// Ends and releases the stream.
  virtual void CloseStream() = 0;

  /// Ends what this side sends and waits until the peer has it all, discarding what it says, or until `MustGiveUp`.
  virtual void FinishStream() = 0;

  /// A number that changes when the peer has taken something, where the system tells.
  virtual std::optional<std::uint64_t> StreamProgress() = 0;

  /// Writes all `length` bytes, waiting for room without a limit until `MustGiveUp` says so.
  virtual Platform::WriteOutcome WriteStream(const char* data, std::size_t length) = 0;

  /// 0 while the peer holds the connection, else the callers' number of how it ended it. Never blocks.
  virtual int StreamPeerState() = 0;

  /// Sets keep-alive on the stream's handle. Returns 0 or the system's own error number.
  virtual int SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) = 0;

  /// Logs that the stream could not be opened, as far as the class tells it.
  virtual void ReportConnectFailure(int error) = 0;

  /// The text of an error number that this class has given out.
  virtual std::string ErrorText(int error) const;

  /// The warning, with one text for the reason, that keep-alive could not be set.
  virtual const char* KeepAliveWarning() const = 0;

  /// Resolves the target's name. The system's resolver, but for tests.
  virtual Platform::ResolvedHost ResolveTarget();

  void ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) override;
  void AcceptParameters(const std::wstring& host, std::uint32_t port, std::uint32_t maxPayloadSize,
                        const std::string& builderType) override;
  bool IsOpenWithoutConnection() const override;
  void ReportRefusal() override;
  void ReportIdle() override;
  std::uint32_t BlockingLength(std::uint32_t length, std::uint32_t limited) const override;
  void ReportTruncation(std::uint32_t length, std::uint32_t limited) override;
  bool CanDeliver() override;
  void FinishConnection() override;
  void LookForProgress() override;
  std::size_t SendPayloads(const FramedPayloads& payloads, bool isAfterIdle) override;

 private:
  /// What became of a batch.
  struct Outcome {
    std::size_t m_payloads = 0;            ///< accepted whole, from the first
    std::size_t m_bytes = 0;               ///< bytes of those, with as much of their framing as was accepted
    bool m_bTorn = false;                  ///< the bytes accepted end within a payload or before its line feed
    bool m_bConnected = true;              ///< false when there was no connection to write to
    std::chrono::milliseconds m_pause{0};  ///< what to wait before the next attempt
  };

  bool ConnectInTurn();
  void CloseInTurn();
  Outcome TrySend(const FramedPayloads& payloads, bool isAfterIdle);
  Outcome Write(const FramedPayloads& payloads, SteadyTime now);
  FramedPayloads FirstOf(const FramedPayloads& payloads) const;
  void CloseIfPeerHasClosed(SteadyTime now, bool isAfterIdle);
  bool Reconnect(SteadyTime now);
  Outcome CountAccepted(std::span<const std::uint32_t> lengths, std::size_t acceptedBytes);
  bool FailConnect(int error, const ACE_Time_Value& attemptTime);
  std::chrono::milliseconds HandleWriteError(int error, bool isTorn, SteadyTime now);
  void ReportLostConnection(int error, SteadyTime now);
  void SetNextReconnect(SteadyTime when);

  RelaxedValue<bool> m_bConnected{false};
  bool m_bKeepAliveEnabled = false;
  std::uint32_t m_keepAliveTimeMs = 0;
  std::uint32_t m_keepAliveIntervalMs = 0;

  // Of whose turn it is.
  SteadyTime m_lastWrite;
  SteadyTime m_lastLook;
  std::optional<std::uint64_t> m_progress;
  bool m_bLastAttemptFailed = false;
  SteadyTime m_nextReconnect;
  SharedTimeValue m_lastConnectAttemptTime;
  SharedTimeValue m_connectedSinceTime;
  SharedTimeValue m_lastConnectFailureTime;
  SharedTimeValue m_nextReconnectTime;
};

}  // namespace VaroCommunicationAPI
