// What every destination socket shares: parameters, counters, the payload limit, the queue and its send thread.
#pragma once

#include "sockets/Framing.h"
#include "sockets/PayloadQueue.h"
#include "sockets/SocketTime.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/IPayloadBuilder.h>
#include <host/Log.h>
#include <host/VaroTask.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace VaroCommunicationAPI {

/// A number that one thread writes and others read while they please.
template <class T>
class RelaxedValue {
 public:
  explicit RelaxedValue(T value = T{}) : m_value(value) {}
  void operator=(T value) { m_value.store(value, std::memory_order_relaxed); }
  operator T() const { return m_value.load(std::memory_order_relaxed); }
  void operator+=(T amount) { m_value.fetch_add(amount, std::memory_order_relaxed); }

 private:
  std::atomic<T> m_value;
};

/// `Interface` is `ITCPSocket` or `IUDPSocket`. Derived classes say how to connect and how to write.
///
/// With the blocking strategy the caller's thread does all input and output. With the queued one, producers in any
/// thread meet one send thread in the task's queue, and that thread alone sends.
///
/// `Open`, `Connect`, `Close` and `Shutdown` may be called by any thread at any time. A stop ends what other threads do
/// with the socket: what they connect or send fails, and producers that wait for room are refused. The class at the end
/// of the hierarchy calls `EndLife` in its destructor.
template <class Interface>
class DestinationSocket : public WindowsAgentCommon::VaroTask, public Interface {
 public:
  explicit DestinationSocket(std::uint32_t maxPayloadSize, std::shared_ptr<ISocketTime> time);
  ~DestinationSocket() override;

  /// While a send thread is running, only to connect to the same target anew; another one needs a `Shutdown` first.
  /// Does nothing while another thread stops the socket.
  void Open(const std::wstring& host, std::uint32_t port) override;
  bool IsOpen() const override;
  std::int32_t Send(const void* buffer, std::uint32_t length) override;
  std::wstring GetHost() const override;
  std::uint32_t GetPort() const override;
  std::int32_t GetLastResultCode() const override;
  /// A socket that is running is shut down first.
  void Initialize(const WindowsAgentCommon::ParameterBlock& parameters) override;
  std::int32_t SendEvent(const WindowsAgentCommon::Event& event) override;
  /// Delivers what is queued while the destination takes it, and otherwise ends within two seconds. `Close` in another
  /// thread ends it sooner. Where another thread is shutting the socket down already, waits for it.
  int Shutdown() override;
  std::uint32_t GetBytesSent() const override;
  std::uint32_t GetMessagesSent() const override;
  std::uint32_t GetBytesSubmitted() const override;
  std::uint32_t GetMessagesSubmitted() const override;
  std::uint32_t GetBytesTruncated() const override;
  std::uint32_t GetMessagesTruncated() const override;
  std::uint32_t GetBytesDropped() const override;
  std::uint32_t GetMessagesDropped() const override;
  std::size_t GetQueueSize() const override;

  /// The send thread. Returns 0.
  int svc() override;

  /// Writes one payload to the network, reconnecting first when that is due. Returns the bytes written, -1 when they
  /// could not be written, or -2 without a connection, after a pause.
  virtual std::int32_t SendPayload(const void* buffer, std::uint32_t length) = 0;

 protected:
  /// Reads what the derived class has of its own; the shared parameters are read already.
  virtual void ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) = 0;

  /// Told, after the parameters were read, what they came to. Throws `InitializationException` when the socket cannot
  /// work with them.
  virtual void AcceptParameters(const std::wstring& host, std::uint32_t port, std::uint32_t maxPayloadSize,
                                const std::string& builderType) = 0;

  /// Whether the socket is open although it could not connect.
  virtual bool IsOpenWithoutConnection() const = 0;

  /// Told, in the caller's thread, of each `Send` that is refused because the socket is not open.
  virtual void ReportRefusal() = 0;

  /// Told by the send thread, about once a second, that it has nothing to send.
  virtual void ReportIdle() = 0;

  /// Names `m_log` for the host and the port that were just stored.
  virtual void NameLogger() = 0;

  /// How much of a payload of `length` bytes, limited to `limited`, the blocking strategy sends.
  virtual std::uint32_t BlockingLength(std::uint32_t length, std::uint32_t limited) const = 0;

  /// Told of each payload that the limit cuts.
  virtual void ReportTruncation(std::uint32_t length, std::uint32_t limited) = 0;

  /// Whether a stop should still try to deliver what waits.
  virtual bool CanDeliver() = 0;

  /// Ends the connection at the end of a stop: with what was sent delivered, if that can be, within the stop's
  /// patience.
  virtual void FinishConnection() = 0;

  /// Told while a stop waits, about ten times a second: calls `NoteProgress` when the destination has taken something.
  virtual void LookForProgress() = 0;

  /// Sends payloads in order as `SendPayload` does, at least one. `isAfterIdle` says that the thread had nothing to do
  /// before. Returns how many, from the first, are done with: accepted by the network whole, or counted as dropped.
  virtual std::size_t SendPayloads(const FramedPayloads& payloads, bool isAfterIdle) = 0;

  /// Whether the queue and its send thread stand between `Send` and the network.
  bool IsQueued() const { return !m_bBlockingSendStrategy; }

  SocketLife::Service GetService() const {
    return IsQueued() ? SocketLife::Service::SendThread : SocketLife::Service::None;
  }

  /// Ends the socket's life before its class's own part goes.
  void EndLife();

  /// Whether what waits for the peer has to end: the socket is stopping and nothing has moved for a while, another
  /// thread claims the connection, or the attempt to connect has a limit that is over. Whose turn it is only.
  bool MustGiveUp();

  /// Tells that bytes have moved. Whose turn it is only.
  void NoteProgress();

  /// Counts payloads that were accepted whole.
  void CountSent(std::size_t messages, std::size_t bytes);

  /// Counts queued payloads that were given up.
  void CountDropped(std::size_t messages, std::size_t bytes);

  /// Waits as the sending thread, less when a stop begins.
  void Pause(std::chrono::milliseconds duration);

  /// Sets what goes around each payload. Before the socket is open only.
  void SetFraming(const Framing& framing);

  const Framing& GetFraming() const { return m_framing; }

  std::shared_ptr<ISocketTime> m_pTime;
  SocketLife m_life;
  ConnectionTurn m_turn;
  /// When the attempt to connect that is under way has to end. Whose turn it is only.
  std::optional<SteadyTime> m_connectDeadline;
  WindowsAgentCommon::Log m_log;
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
  RelaxedValue<std::int32_t> m_lastResultCode{0};

 private:
  bool StartThread();
  std::int32_t Submit(const void* buffer, std::uint32_t length);
  bool Enqueue(const void* buffer, std::uint32_t length);
  void DropQueued();

  const std::uint32_t m_defaultMaxPayloadSize;
  std::uint32_t m_maxPayloadSize;
  RelaxedValue<bool> m_bBlockingSendStrategy{true};
  std::shared_ptr<WindowsAgentCommon::IPayloadBuilder> m_pPayloadBuilder;
  std::mutex m_payloadMutex;
  std::string m_strPayload;

  RelaxedValue<std::uint32_t> m_bytesSubmitted{0};
  RelaxedValue<std::uint32_t> m_messagesSubmitted{0};
  RelaxedValue<std::uint32_t> m_bytesSent{0};
  RelaxedValue<std::uint32_t> m_messagesSent{0};
  RelaxedValue<std::uint32_t> m_bytesTruncated{0};
  RelaxedValue<std::uint32_t> m_messagesTruncated{0};
  RelaxedValue<std::uint32_t> m_bytesDropped{0};
  RelaxedValue<std::uint32_t> m_messagesDropped{0};

  Framing m_framing;

  /// The task's queue.
  PayloadQueue m_queue;

  /// Of whose turn it is.
  SteadyTime m_lastProgress;
};

}  // namespace VaroCommunicationAPI
