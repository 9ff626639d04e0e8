// The service that makes sockets, with a scripted server behind each of them.
#pragma once

#include "support/FakeRawSocket.h"

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/IConnectionFactory.h>
#include <host/ServiceComponentBase.h>

#include <ace/Service_Object.h>

#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

/// How the server behaves on one connection.
struct Conversation {
  std::string m_says;      ///< all of it, whatever the request
  int m_endError = 10101;  ///< the result of a read after the end: closed by the peer, or 137 for a silent one
  bool m_bAccepts = true;
  std::size_t m_takes = std::numeric_limits<std::size_t>::max();  ///< bytes that it accepts in all
};

/// What the server's connections did, and how the next ones will behave. Without a script it refuses.
struct ScriptedServer {
  std::deque<Conversation> m_next;
  std::vector<std::string> m_received;  ///< by each connection
  bool m_bKeepsReceived = true;         ///< false for a test that looks for secrets in memory
  std::vector<FakeRawSocket::Call> m_calls;
  int m_attempts = 0;
  int m_open = 0;
  std::vector<std::uint8_t> m_flags;  ///< of the sockets that were made
  std::optional<VaroCommunicationAPI::SSLProtocolList> m_protocols;
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
};

class ScriptedRawSocket : public WindowsAgentCommon::IRawSocket {
 public:
  explicit ScriptedRawSocket(ScriptedServer& server) : m_server(server) {}
  ~ScriptedRawSocket() override { End(); }

  void Open(const std::wstring& host, std::uint32_t port) override {
    m_server.m_strHost = host;
    m_server.m_port = port;
    Connect();
  }
  bool IsOpen() const override { return true; }
  void Close() override { End(); }
  bool IsConnected() const override { return m_pipe.has_value(); }
  bool Connect() override {
    End();
    ++m_server.m_attempts;
    m_lastResultCode = 10061;
    if (m_server.m_next.empty()) return false;
    const Conversation conversation = m_server.m_next.front();
    m_server.m_next.pop_front();
    if (!conversation.m_bAccepts) return false;
    m_endError = conversation.m_endError;
    m_pipe.emplace(conversation.m_says);
    m_pipe->SetRoom(conversation.m_takes);
    m_server.m_received.emplace_back();
    ++m_server.m_open;
    m_lastResultCode = 0;
    return true;
  }
  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    if (!m_pipe) return -1;
    if (!m_server.m_bKeepsReceived) return static_cast<std::int32_t>(length);
    m_server.m_received.back().append(static_cast<const char*>(buffer), length);
    return Keep(m_pipe->Send(buffer, length), length);
  }
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override {
    if (!m_pipe) return -1;
    m_server.m_calls.push_back({FakeRawSocket::Call::Kind::Receive, length, timeoutMs});
    return Keep(m_pipe->Receive(buffer, length, timeoutMs), length);
  }
  std::wstring GetHost() const override { return m_server.m_strHost; }
  std::uint32_t GetPort() const override { return m_server.m_port; }
  std::int32_t GetLastResultCode() const override { return m_lastResultCode; }

 private:
  void End() {
    if (m_pipe) --m_server.m_open;
    m_pipe.reset();
  }
  std::int32_t Keep(std::int32_t count, std::uint32_t length) {
    m_lastResultCode = count == static_cast<std::int32_t>(length) ? 0 : m_endError;
    return count;
  }

  ScriptedServer& m_server;
  std::optional<FakeRawSocket> m_pipe;
  int m_endError = 0;
  std::int32_t m_lastResultCode = 0;
};

/// Makes nothing but raw TLS sockets.
class ScriptedConnectionFactory
    : public WindowsAgentCommon::ServiceComponentBase<WindowsAgentCommon::IConnectionFactory, ACE_Service_Object> {
 public:
  explicit ScriptedConnectionFactory(ScriptedServer& server) : m_server(server) {}

  void CreateSSLSocket(std::uint8_t flags, const VaroCommunicationAPI::SSLProtocolList& protocols,
                       std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override {
    m_server.m_flags.push_back(flags);
    m_server.m_protocols = protocols;
    socket = std::make_shared<ScriptedRawSocket>(m_server);
  }

  int Initialize(const WindowsAgentCommon::ServiceConfig&) override { return 1; }
  std::string GetVersion() const override { return {}; }
  void Shutdown() override {}
  bool IsStandAloneMode() const override { return false; }
  void CreateSocket(std::uint8_t, std::shared_ptr<WindowsAgentCommon::IRawSocket>&) override {}
  void CreateConfigServerConnection(std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>&) override {}
  void ReleaseConfigServerConnection(std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>&) override {}
  bool GetParameter(const std::string&, std::string&) const override { return false; }

 private:
  ScriptedServer& m_server;
};

}  // namespace sorvex::test
