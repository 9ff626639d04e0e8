// One agent's connection over the wire protocol.
#pragma once

#include <DataFolder.h>
#include <Fault.h>
#include <Request.h>
#include <Response.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
  std::size_t agents = 0;  ///< that are connected now
};

/// Lives as long as something is under way on it. The server's thread only.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(boost::asio::ip::tcp::socket socket, Service& service);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Start();

 private:
  /// Ends the connection when it has not gone on before; each call puts off what the one before asked for.
  void ExpectWithin(std::chrono::steady_clock::duration time, const char* what);
  void ReadMore();
  void HandleInput();
  void Handle(const Request& request);
  void HandleContent(const Establishment& establishment);
  void HandleContent(const Registration& registration);
  void HandleContent(const StatusReport& report);
  void HandleContent(const ConfigurationQuery& query);
  void HandleContent(const PatchQuery& query);
  Result Admit(const Establishment& establishment);

  /// Calls `next` when the file's digest is there; other connections are served meanwhile.
  void AfterDigest(std::shared_ptr<ServedFile> file, void (Connection::*next)(std::shared_ptr<ServedFile> file));
  void SendConfiguration(std::shared_ptr<ServedFile> file);
  void SendPatch(std::shared_ptr<ServedFile> file);

  void Respond(Result result, std::shared_ptr<ServedFile> data = nullptr);
  void SendBytes(std::string head, std::shared_ptr<ServedFile> data);
  void WriteMore();
  void FinishExchange();

  /// Says farewell, then waits until the agent has it: closed at once, what was not read would destroy what was sent.
  void EndAfterResponse();
  void DiscardInput();
  void Close();

  void Log(const std::string& text) const;
  /// The result of the exchange, or what became of it.
  void LogExchange(const std::string& outcome) const;

  Service& m_service;
  boost::asio::ssl::stream<boost::asio::ip::tcp::socket> m_stream;
  boost::asio::steady_timer m_deadline;
  boost::asio::steady_timer m_pause;
  const char* m_awaited = "";
  std::string m_peer;

  std::array<char, 16384> m_readBuffer;
  std::string m_input;
  bool m_isRequestBegun = false;

  std::optional<AgentName> m_agent;  ///< once it was admitted
  WireVersion m_version = WireVersion::V2;

  // The exchange in hand.
  Exchange m_exchange = Exchange::Establishment2;
  Fault::Kind m_fault = Fault::Kind::None;
  std::string m_query;  ///< digest or patch file, for the comparison and the log
  std::string m_outcome;
  bool m_isLast = false;  ///< the connection ends behind the response
  std::string m_output;
  std::size_t m_written = 0;
  std::uint64_t m_total = 0;  ///< written of the whole response
  std::shared_ptr<ServedFile> m_pData;
};

}  // namespace sorvex::configserver
