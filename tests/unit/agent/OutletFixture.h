// Outlets with sockets that do what the test says, and the platform that they need.
#pragma once

#include <Outlet.h>
#include <platform/Platform.h>

#include "support/WaitUntil.h"

#include <host/IConnectionFactory.h>
#include <host/IUDPSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace sorvex::test {

/// What the program's platform has noted.
struct PlatformState {
  std::atomic<bool> isInterrupted{false};
  std::atomic<bool> isReadingStopped{false};
};
inline PlatformState platformState;

/// Opens once; whoever waits before that is held.
class Gate {
 public:
  void Open() {
    {
      const std::lock_guard lock(m_mutex);
      m_isOpen = true;
    }
    m_opened.notify_all();
  }
  /// Returns whether it was opened within the test's patience: a broken program does not hang the test.
  bool Wait() {
    std::unique_lock lock(m_mutex);
    return m_opened.wait_for(lock, patience, [this] { return m_isOpen; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_opened;
  bool m_isOpen = false;
};

/// Its counters are the test's. Sends at once unless the test says otherwise.
template <class Interface>
class ScriptedSocket : public Interface {
 public:
  using Event = WindowsAgentCommon::Event;
  using ParameterBlock = WindowsAgentCommon::ParameterBlock;

  // Set these before the socket is used.
  std::function<void()> onInitialize = [] {};
  std::function<std::int32_t(const Event&)> onSend = [this](const Event&) { return Accept(); };
  std::function<int()> onShutdown = [] { return 0; };

  std::atomic<std::uint32_t> submitted{0}, sent{0}, dropped{0}, bytesSubmitted{0}, failures{0};
  std::atomic<std::int32_t> lastResult{0};
  std::atomic<bool> isConnected{true};
  std::atomic<int> shutdowns{0}, closes{0};
  ParameterBlock parameters;

  /// Results of `onSend`.
  std::int32_t Accept() {
    bytesSubmitted += 1;
    submitted += 1;
    sent += 1;
    return 1;
  }
  std::int32_t Refuse() {
    bytesSubmitted += 1;
    submitted += 1;
    return -1;
  }

  void Initialize(const ParameterBlock& block) override {
    parameters = block;
    onInitialize();
  }
  std::int32_t SendEvent(const Event& event) override { return onSend(event); }
  int Shutdown() override {
    shutdowns += 1;
    return onShutdown();
  }
  void Close() override { closes += 1; }
  bool IsConnected() const override { return isConnected; }
  std::int32_t GetLastResultCode() const override { return lastResult; }
  std::uint32_t GetMessagesSubmitted() const override { return submitted; }
  std::uint32_t GetMessagesSent() const override { return sent; }
  std::uint32_t GetMessagesDropped() const override { return dropped; }
  std::uint32_t GetBytesSubmitted() const override { return bytesSubmitted; }

  // What no test looks at.
  void Open(const std::wstring&, std::uint32_t) override {}
  bool IsOpen() const override { return true; }
  bool Connect() override { return true; }
  std::int32_t Send(const void*, std::uint32_t) override { return -1; }
  std::int32_t Receive(void*, std::uint32_t, std::uint32_t) override { return -1; }
  std::wstring GetHost() const override { return {}; }
  std::uint32_t GetPort() const override { return 0; }
  std::uint32_t GetBytesSent() const override { return 0; }
  std::uint32_t GetMessagesTruncated() const override { return 0; }
  std::uint32_t GetBytesTruncated() const override { return 0; }
  std::uint32_t GetBytesDropped() const override { return 0; }
  std::size_t GetQueueSize() const override { return 0; }
};

using ScriptedTcpSocket = ScriptedSocket<WindowsAgentCommon::ISocket>;

class ScriptedUdpSocket : public ScriptedSocket<WindowsAgentCommon::IUDPSocket> {
 public:
  std::uint32_t GetConsecutiveSendFailures() const override { return failures; }
};

/// Hands out one socket after the other.
class ScriptedFactory : public WindowsAgentCommon::IConnectionFactory {
 public:
  std::vector<std::shared_ptr<WindowsAgentCommon::IRawSocket>> sockets;

  void CreateSocket(std::uint8_t, std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override {
    socket = sockets.at(m_made++);
  }
  void CreateSSLSocket(std::uint8_t flags, const VaroCommunicationAPI::SSLProtocolList&,
                       std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override {
    CreateSocket(flags, socket);
  }

  std::string GetServiceConfigText1() const override { return {}; }
  std::string GetServiceConfigText2() const override { return {}; }
  std::string GetServiceConfigText3() const override { return {}; }
  std::string GetServiceConfigText4() const override { return {}; }
  std::string GetServiceConfigText5() const override { return {}; }
  int Initialize(const WindowsAgentCommon::ServiceConfig&) override { return 0; }
  std::string GetVersion() const override { return {}; }
  bool IsInitialized() const override { return true; }
  bool IsRestartRequested() const override { return false; }
  void Shutdown() override {}
  bool IsStandAloneMode() const override { return true; }
  void CreateConfigServerConnection(std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>&) override {}
  void ReleaseConfigServerConnection(std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>&) override {}
  bool GetParameter(const std::string&, std::string&) const override { return false; }

 private:
  std::size_t m_made = 0;
};

/// Outlets "tcp://a:1", "tcp://b:2" and so on.
class OutletsTest : public testing::Test {
 protected:
  OutletsTest() {
    platformState.isInterrupted = false;
    platformState.isReadingStopped = false;
    m_command.destinations.reserve(4);
  }

  template <class Socket>
  Socket& Add(agent::Scheme scheme) {
    auto socket = std::make_shared<Socket>();
    Socket& reference = *socket;
    m_factory.sockets.push_back(std::move(socket));
    const std::size_t number = m_factory.sockets.size();
    const std::string host(1, static_cast<char>('a' + number - 1));
    const std::string name = scheme == agent::Scheme::Udp ? "udp" : "tcp";
    m_command.destinations.push_back(
        {name + "://" + host + ":" + std::to_string(number), scheme, host, static_cast<std::uint16_t>(number)});
    m_outlets.push_back(std::make_unique<agent::Outlet>(m_command.destinations.back(), m_command, m_factory));
    return reference;
  }
  ScriptedTcpSocket& AddTcp() { return Add<ScriptedTcpSocket>(agent::Scheme::Tcp); }
  ScriptedUdpSocket& AddUdp() { return Add<ScriptedUdpSocket>(agent::Scheme::Udp); }

  agent::Outlet& First() { return *m_outlets.front(); }

  static WindowsAgentCommon::Event Text(const std::string& text = "text") {
    WindowsAgentCommon::Event event;
    event.m_strText = text;
    return event;
  }

  agent::ForwardCommand m_command;
  ScriptedFactory m_factory;
  std::vector<std::unique_ptr<agent::Outlet>> m_outlets;
};

}  // namespace sorvex::test
