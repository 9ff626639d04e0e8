// An HTTP proxy on a free loopback port that leads every tunnel to one port of this machine, whatever host and port is
// requested. With it an ordinary user's test reaches a server "on port 443". It uses Boost.Asio.
#pragma once

#include "LoopbackTcpServer.h"
#include "ScopedVariable.h"

#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace sorvex::test {

class ConnectProxy {
 public:
  /// Tunnels lead to `targetPort`. If `answer` is not a success, there are none.
  explicit ConnectProxy(std::uint16_t targetPort, std::string answer = "HTTP/1.1 200 Connection established\r\n\r\n");

  std::uint16_t Port() const { return m_server.Port(); }

  /// The clients' requests to the proxy itself, byte for byte, up to the empty line.
  std::vector<std::string> Requests() const;

 private:
  void Serve(ServerConnection& connection);

  const std::uint16_t m_targetPort;
  const std::string m_answer;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_requests;
  LoopbackTcpServer m_server;
};

/// Makes the HTTPS clients of this process use only the proxy at a loopback port, whatever was set before.
class ScopedProxy {
 public:
  explicit ScopedProxy(std::uint16_t port) {
    // On Windows names in upper case are the same variables.
    for (const char* const name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
      m_variables.emplace_back(name, std::nullopt);
    }
    m_variables.emplace_back("https_proxy", "http://127.0.0.1:" + std::to_string(port));
  }
  ~ScopedProxy() {
    while (!m_variables.empty()) m_variables.pop_back();
  }
  ScopedProxy(const ScopedProxy&) = delete;
  ScopedProxy& operator=(const ScopedProxy&) = delete;

 private:
  std::list<ScopedVariable> m_variables;
};

}  // namespace sorvex::test
