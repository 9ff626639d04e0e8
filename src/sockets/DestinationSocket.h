// What every destination socket does, whatever it sends through: parameters, payload limit, queue and send thread.
#pragma once

#include "sockets/DestinationState.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/IPayloadBuilder.h>
#include <host/VaroTask.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace VaroCommunicationAPI {

/// What differs between destination socket classes.
struct DestinationTraits {
  const char* m_loggerName;       ///< a format with the object's address, the host and the port
  const char* m_className;        ///< for exceptions
  const char* m_receiveFunction;  ///< for exceptions
  std::uint32_t m_defaultMaxPayloadSize;
  bool m_bOpensUnconnected;        ///< open as soon as `Open` was called, not only while connected
  bool m_bCutsWhenBlocking;        ///< the limit is also applied, not only counted, with the blocking strategy
  const char* m_truncationReport;  ///< a format with both lengths, logged at Debug; null for none
};

/// The parameters that every sender gets.
struct DestinationParameters {
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
  std::uint32_t m_maxPayloadSize = 0;
  std::string m_strBuilderType;
};

/// `Sender` is what the socket holds and sends through. It is constructed with the socket's `DestinationState` and
/// whatever else its class passes on:
///
///   using Interface                                    `ITCPSocket` or `IUDPSocket`
///   void Configure(EnvironmentBlockHelper, DestinationParameters)
///                                                      reads its own parameters; nobody sends meanwhile
///   bool Connect(), void Close(), bool IsConnected()   as in the interface; any thread
///   std::int32_t SendPayload(std::span<const char>)    as the socket's
///   std::size_t SendPayloads(FramedPayloads)           the same for the queue, with at least one payload, in order;
///                                                      returns how many, from the first, are done with: accepted
///                                                      whole, or counted as dropped
///   void Idle()                                        called by the send thread when it has nothing to send, before
///                                                      each wait of at most about a second
///   bool CanDeliver()                                  whether a stop should go on delivering what is queued
///   void Finish()                                      ends the connection at the end of a stop, having delivered
///                                                      what was sent if the stop's patience allows
///
/// With the blocking strategy the caller's thread does all input and output. With the queued one, producers in any
/// thread fill the task's queue, and only its one send thread sends.
///
/// Any thread may call `Open`, `Connect`, `Close` and `Shutdown` at any time. A stop ends what other threads do with
/// the socket: their connects and sends fail, and producers waiting for room are refused. The most derived class calls
/// `EndLife` in its destructor.
template <class Sender>
class DestinationSocket : public WindowsAgentCommon::VaroTask, public Sender::Interface {
 public:
  ~DestinationSocket() override;

  /// While a send thread is running, only to reconnect to the same target; another target needs a `Shutdown` first.
  /// Does nothing while another thread stops the socket.
  void Open(const std::wstring& host, std::uint32_t port) override;
  bool IsOpen() const override;
  /// Also ends a stop that another thread waits for: what is not delivered is given up.
  void Close() override;
  bool IsConnected() const override;
  /// Returns false while another thread stops the socket.
  bool Connect() override;
  std::int32_t Send(const void* buffer, std::uint32_t length) override;
  /// Always throws `OperationNotSupportedException`: a destination is only written to.
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override;
  std::wstring GetHost() const override;
  std::uint32_t GetPort() const override;
  std::int32_t GetLastResultCode() const override;
  /// A running socket is shut down first.
  void Initialize(const WindowsAgentCommon::ParameterBlock& parameters) override;
  std::int32_t SendEvent(const WindowsAgentCommon::Event& event) override;
  /// Delivers what is queued while the destination takes it; otherwise ends within two seconds. `Close` in another
  /// thread ends it sooner. If another thread is already shutting the socket down, waits for it.
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

  /// Writes one payload to the network, reconnecting first if that is due. Returns the bytes written, -1 if they could
  /// not be written, or -2, after a pause, without a connection.
  virtual std::int32_t SendPayload(const void* buffer, std::uint32_t length);

 protected:
  template <class... Arguments>
  DestinationSocket(const DestinationTraits& traits, SocketServices services, Arguments&&... arguments)
      : m_state(std::move(services)), m_sender(m_state, std::forward<Arguments>(arguments)...), m_traits(traits) {
    Prepare();
  }

  /// Whether `Send` goes through the queue and its send thread.
  bool IsQueued() const { return !m_bBlockingSendStrategy; }

  /// Ends the socket's life before the derived class's part is destroyed.
  void EndLife();

  DestinationState m_state;
  Sender m_sender;

 private:
  void Prepare();
  PayloadQueue& Queue() { return m_state.m_life.Queue(); }
  SocketLife::Service GetService() const;
  bool StartThread();
  std::int32_t Submit(const void* buffer, std::uint32_t length);

  const DestinationTraits m_traits;
  std::uint32_t m_maxPayloadSize = m_traits.m_defaultMaxPayloadSize;
  RelaxedValue<bool> m_bBlockingSendStrategy{true};
  std::shared_ptr<WindowsAgentCommon::IPayloadBuilder> m_pPayloadBuilder;
  SpareTexts m_payloadTexts;
};

}  // namespace VaroCommunicationAPI
