// A receiver of any transport, and what it has received.
#pragma once

#include <support/LoopbackTlsServer.h>
#include <support/LoopbackUdpServer.h>
#include <support/Transport.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

namespace sorvex::test {

/// What receivers have received over all their lives, by connection. Thread-safe.
class Reception {
 public:
  struct Verdict {
    std::uint32_t whole = 0;  ///< payloads that arrived whole
    int gaps = 0;             ///< places where payloads are missing
    std::string complaint;    ///< empty when nothing is doubled, torn or out of order
  };

  /// A payload of about `bytes` bytes that contains its number and its length.
  static std::string PayloadOf(int number, std::size_t bytes);

  /// Returns the number of a new connection.
  std::size_t AddConnection();
  void Add(std::size_t connection, std::string_view bytes);

  bool HasPayload(int number) const;
  std::size_t Payloads() const;
  /// All connections' bytes, one after the other.
  std::string Text() const;

  /// Reads all connections in their order. A connection may end within a payload, but only so.
  Verdict Judge() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_connections;
};

/// One connection of a receiver, as a behaviour sees it.
class PeerSession {
 public:
  virtual ~PeerSession() = default;
  virtual bool ReadSome(std::string& text, std::size_t limit) = 0;
  virtual void Write(const std::string& text) = 0;
  virtual ServerConnection& Connection() = 0;

  void Close() { Connection().Close(); }
  void Reset() { Connection().Reset(); }

  /// The reception's connection number, given by the receiver.
  std::size_t m_number = 0;
};

class Receiver {
 public:
  using Behaviour = std::function<void(Receiver& receiver, PeerSession& session, int index)>;

  static void KeepAll(Receiver& receiver, PeerSession& session, int) { receiver.KeepAllOf(session); }

  /// A UDP receiver keeps everything and follows neither the behaviour nor the options.
  Receiver(Transport transport, Reception& reception, Behaviour behaviour = KeepAll, std::uint16_t port = 0,
           TlsServerOptions options = {});
  ~Receiver();

  std::uint16_t Port() const;
  /// Calls `afterRead` after each part.
  void KeepAllOf(
      PeerSession& session, std::size_t readLimit = 65536, const std::function<void()>& afterRead = [] {});
  /// Keeps what the connection sends up to the end of its first payload.
  void KeepOne(PeerSession& session);
  void HoldUntilStopped();
  bool IsStopped() const;

  /// Makes it end like a killed process.
  void Kill();

 private:
  void Serve(PeerSession& session, int index);
  LoopbackTcpServer& Tcp();
  const LoopbackTcpServer& Tcp() const { return const_cast<Receiver*>(this)->Tcp(); }

  Reception& m_reception;
  Behaviour m_behaviour;
  std::unique_ptr<LoopbackTcpServer> m_pTcp;
  std::unique_ptr<LoopbackTlsServer> m_pTls;
  std::unique_ptr<LoopbackUdpServer> m_pUdp;
};

}  // namespace sorvex::test
