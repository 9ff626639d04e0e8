// A destination socket over UDP.
#pragma once

#include "sockets/DestinationSocket.h"

#include <host/IUDPSocket.h>

#include <ace/SOCK_CODgram.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// Sends each payload as a datagram, over IPv4. Recovery counts failures, not time: each failure causes a second's
/// pause, and every 500th in a row a new socket, for which the name is resolved again. While the socket is not open,
/// every 500th refused payload causes a new one too.
class DatagramSender {
 public:
  using Interface = WindowsAgentCommon::IUDPSocket;

  explicit DatagramSender(DestinationState& state);

  void Configure(const WindowsAgentCommon::EnvironmentBlockHelper& helper, const DestinationParameters& common);
  bool Connect();
  void Close();
  bool IsConnected() const;
  std::int32_t SendPayload(std::span<const char> payload);
  std::size_t SendPayloads(const FramedPayloads& payloads);
  void Idle();
  bool CanDeliver();
  void Finish();

  /// Notes that a payload was refused because the socket is not open: by the queue, or else in the caller's thread.
  void CountRefusal(bool isQueued);

  std::uint32_t ConsecutiveSendFailures() const { return m_consecutiveSendFailures; }

 private:
  using Payload = std::span<const char>;

  bool ConnectInTurn();
  Platform::DatagramOutcome SendAllDatagrams(std::span<const Payload> payloads);
  Platform::DatagramOutcome TrySend(std::span<const Payload> payloads);
  SocketError OpenSocket();
  void CloseSocket();
  void CountFailure(SocketError error);
  void Reconnect();
  void ReconnectIfWanted();

  DestinationState& m_state;
  const std::function<bool()> m_mustGiveUp = [this] { return m_state.MustGiveUp(); };

  /// Closed with its last owner. Belongs to the holder of the turn.
  std::shared_ptr<ACE_SOCK_CODgram> m_pSocket;
  std::string m_strDestination;
  std::vector<Payload> m_payloads;  ///< used by the send thread only
  RelaxedValue<std::uint32_t> m_consecutiveSendFailures{0};

  /// The owner wants the socket open: set by `Connect`, cleared by `Close`.
  RelaxedValue<bool> m_bWanted{false};
  std::atomic<std::uint32_t> m_refusals{0};
  std::atomic<bool> m_bReconnectDue{false};
};

class UDPSocket : public DestinationSocket<DatagramSender> {
 public:
  explicit UDPSocket(SocketServices services = {});
  ~UDPSocket() override;

  std::int32_t Send(const void* buffer, std::uint32_t length) override;
  std::uint32_t GetConsecutiveSendFailures() const override;
};

}  // namespace VaroCommunicationAPI
