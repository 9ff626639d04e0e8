// A destination socket over UDP.
#pragma once

#include "platform/NameResolver.h"
#include "platform/SocketIo.h"
#include "sockets/DestinationSocket.h"

#include <host/IUDPSocket.h>

#include <ace/SOCK_CODgram.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// One datagram a payload, over IPv4. It recovers by counting failures and not by the clock: after each failure a
/// second's pause, and at every 500th in a row a new socket, for which the name is resolved anew. While it is not open,
/// every 500th `Send` that is refused counts likewise.
class UDPSocket : public DestinationSocket<WindowsAgentCommon::IUDPSocket> {
 public:
  explicit UDPSocket(std::shared_ptr<ISocketTime> time = ISocketTime::System());
  ~UDPSocket() override;

  void Close() override;
  bool IsConnected() const override;
  bool Connect() override;

  /// Throws `OperationNotSupportedException`, always: a destination is only written to.
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override;

  std::int32_t SendPayload(const void* buffer, std::uint32_t length) override;
  std::uint32_t GetConsecutiveSendFailures() const override;

 protected:
  /// Resolves the target's name. The system's resolver, but for tests.
  virtual Platform::ResolvedHost ResolveTarget(Platform::AddressFamily family);

  /// A payload on its way to the network.
  using Payload = std::span<const char>;

  /// Sends what the system takes at once on the open socket. The system's, but for tests.
  virtual Platform::DatagramOutcome SendDatagrams(std::span<const Payload> payloads);

  void ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) override;
  void AcceptParameters(const std::wstring& host, std::uint32_t port, std::uint32_t maxPayloadSize,
                        const std::string& builderType) override;
  bool IsOpenWithoutConnection() const override;
  void ReportRefusal() override;
  void ReportIdle() override;
  void NameLogger() override;
  std::uint32_t BlockingLength(std::uint32_t length, std::uint32_t limited) const override;
  void ReportTruncation(std::uint32_t length, std::uint32_t limited) override;
  bool CanDeliver() override;
  void FinishConnection() override;
  void LookForProgress() override;
  std::size_t SendPayloads(const FramedPayloads& payloads, bool isAfterIdle) override;

 private:
  bool ConnectInTurn();
  Platform::DatagramOutcome SendAllDatagrams(std::span<const Payload> payloads);
  Platform::DatagramOutcome TrySend(std::span<const Payload> payloads);
  int OpenSocket();
  void CloseSocket();
  void CountFailure(int error);
  void Reconnect();

  /// The socket closes with its last owner.
  std::shared_ptr<ACE_SOCK_CODgram> m_pSocket;
  std::string m_strDestination;
  std::vector<Payload> m_payloads;  ///< that the send thread has in hand
  RelaxedValue<std::uint32_t> m_consecutiveSendFailures{0};

  /// The owner wants the socket open: set by `Connect`, cleared by `Close`.
  RelaxedValue<bool> m_bWanted{false};
  std::atomic<std::uint32_t> m_refusals{0};
  std::atomic<bool> m_bReconnectDue{false};
};

}  // namespace VaroCommunicationAPI
