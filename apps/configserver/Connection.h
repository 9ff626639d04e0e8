// One agent's connection: TLS, time limits, and what a fault does to the bytes of an answer. The conversation
// interprets the bytes.
#pragma once

#include <DataFolder.h>
#include <Exchange.h>
#include <Fault.h>
#include <Protocol.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// What all connections share.
struct Service {
  DataFolder& folder;
  boost::asio::ssl::context& tls;
  std::string serverKey;  ///< of the certificate, X.509 SubjectPublicKeyInfo, DER
  WireVersion wireVersion = WireVersion::V2;
  std::size_t maxAgents = 0;
  std::chrono::seconds idleTimeout{};
  std::chrono::seconds requestTimeout{};
  Fault fault;
  std::size_t agents = 0;       ///< connected now
  std::size_t connections = 0;  ///< existing now
};

/// An answer being sent.
struct Outgoing {
  std::string head;
  std::shared_ptr<ServedFile> body{};  ///< follows the head; null when nothing does
  std::string outcome;                 ///< for the log
  bool isLast = false;                 ///< the connection ends after it
};

/// The protocol on a connection.
class Conversation {
 public:
  virtual ~Conversation() = default;

  /// Has the request at the start of `input` answered, at once or later, by one `Connection::Send` or `Close`. Returns
  /// the number of bytes consumed; 0 when the request is not complete.
  virtual std::size_t HandleInput(std::string_view input) = 0;
};

/// Lives while an operation on it is pending. The server's thread only.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(boost::asio::ip::tcp::socket socket, Service& service);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Start(std::unique_ptr<Conversation> conversation);

  // The rest is for the conversation.

  /// Notes that a request of this kind arrived and decides how to spoil the answer. Returns false when there is to be
  /// none: the connection is closed.
  bool Begin(Exchange exchange, Protocol protocol);
  Fault::Kind GetFault() const { return m_fault; }

  /// Assigns the connection to this agent. Returns false when there are too many.
  bool Admit(const AgentName& agent);
  const std::optional<AgentName>& Agent() const { return m_agent; }

  /// Calls `next` when the file's digest is ready, or with false when there can be none, which is logged. Other
  /// connections are served meanwhile.
  void AfterDigest(std::shared_ptr<ServedFile> file, std::function<void(bool isThere)> next);

  void Send(Outgoing answer);
  void Close();
  void Log(const std::string& text) const;

 private:
  /// Ends the connection unless it makes progress in time; each call replaces the previous limit.
  void ExpectWithin(std::chrono::steady_clock::duration time, const char* what);
  void ReadMore();
  void HandleInput();
  void WriteMore();
  void FinishExchange();

  /// Sends a TLS close and waits until the agent has it: closing at once with unread input would discard what was sent.
  void EndAfterAnswer();
  void DiscardInput();

  /// The result of the exchange, or how it ended.
  void LogExchange(const std::string& outcome) const;

  Service& m_service;
  boost::asio::ssl::stream<boost::asio::ip::tcp::socket> m_stream;
  boost::asio::steady_timer m_deadline;
  boost::asio::steady_timer m_pause;
  const char* m_awaited = "";
  std::string m_peer;
  std::unique_ptr<Conversation> m_pConversation;

  std::array<char, 16384> m_readBuffer;
  std::string m_input;
  bool m_isRequestBegun = false;

  std::optional<AgentName> m_agent;  ///< once it was admitted

  // The current exchange.
  const char* m_exchangeName = "";
  Fault::Kind m_fault = Fault::Kind::None;
  Outgoing m_answer;
  std::string m_output;
  std::size_t m_written = 0;
  std::uint64_t m_total = 0;  ///< bytes written of the whole answer
};

}  // namespace sorvex::configserver
