// An HTTPS server on a free loopback port that says what a test has written down, byte for byte, and keeps the requests
// as they came. It speaks through Boost.Asio, and knows no more of HTTP than where the head of a request ends.
#pragma once

#include "LoopbackTlsServer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

/// The bytes of an answer with this body.
std::string HttpAnswer(std::string_view body, std::string_view status = "200 OK");

/// Requests are numbered from 0 over all connections. A connection that is closed before a request is none.
class ScriptedHttpsServer {
 public:
  /// Answers the request `index`. Then the next one of the connection is waited for, unless the script has closed it.
  using Script = std::function<void(TlsServerSession& session, int index)>;

  explicit ScriptedHttpsServer(Script script, const TlsServerOptions& options = {});

  /// Gives the requests these answers in turn, and the last one to all that follow.
  explicit ScriptedHttpsServer(std::vector<std::string> answers, const TlsServerOptions& options = {});

  /// The heads of all requests up to the empty line, complete for each that was answered.
  std::vector<std::string> Requests() const;

  /// The first line of each, without its line end.
  std::vector<std::string> RequestLines() const;

  std::uint16_t Port() const { return m_server.Port(); }

  /// Connections and handshakes of all clients, those among them that ask for nothing.
  int Connections() const { return m_server.Connections(); }
  int Handshakes() const { return m_server.Handshakes(); }
  int FailedHandshakes() const { return m_server.FailedHandshakes(); }

  /// Waits until the clients have ended all connections on which hands were shaken; returns whether they have.
  bool AllEnded();

  void HoldUntilStopped() { m_server.HoldUntilStopped(); }
  void Stop() { m_server.Stop(); }

 private:
  void Serve(TlsServerSession& session);

  const Script m_script;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_requests;
  std::atomic<int> m_ended{0};
  LoopbackTlsServer m_server;
};

}  // namespace sorvex::test
