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

/// Sends each payload as a datagram, over IPv4. It recovers by counting failures and not by the clock: after each
/// failure a second's pause, and at every 500th in a row a new socket, for which the name is resolved anew. While it is
/// not open, every 500th payload that is refused counts likewise.
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

  /// Tells that a payload was refused because the socket is not open, to the queue or, in the caller's thread, without.
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

  /// The socket closes with its last owner. Of whose turn it is.
  std::shared_ptr<ACE_SOCK_CODgram> m_pSocket;
  std::string m_strDestination;
  std::vector<Payload> m_payloads;  ///< that the send thread has in hand
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
