// An HTTPS server on a free loopback port that sends a test's script byte for byte and keeps the requests unchanged. It
// uses Boost.Asio, and knows about HTTP only where the header of a request ends.
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

/// Requests are numbered from 0 over all connections. A connection that is closed before a request does not count.
class ScriptedHttpsServer {
 public:
  /// Answers the request `index`. Then waits for the connection's next one, unless the script has closed it.
  using Script = std::function<void(TlsServerSession& session, int index)>;

  explicit ScriptedHttpsServer(Script script, const TlsServerOptions& options = {});

  /// Answers the requests with these in order, and all later ones with the last.
  explicit ScriptedHttpsServer(std::vector<std::string> answers, const TlsServerOptions& options = {});

  /// The headers of all requests up to the empty line, complete for each that was answered.
  std::vector<std::string> Requests() const;

  /// The first line of each, without its line end.
  std::vector<std::string> RequestLines() const;

  std::uint16_t Port() const { return m_server.Port(); }

  /// Connections and handshakes of all clients, including those without a request.
  int Connections() const { return m_server.Connections(); }
  int Handshakes() const { return m_server.Handshakes(); }
  int FailedHandshakes() const { return m_server.FailedHandshakes(); }

  /// Waits until the clients have ended all connections with a finished handshake; returns whether they have.
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
