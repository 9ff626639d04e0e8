// What the sockets set on their connections, as the system tells of the handles.
#include "HandleInheritance.h"
#include "KeepAlive.h"
#include "Transports.h"
#include "sockets/UDPSocket.h"

#include <support/ConnectionHandles.h>
#include <support/LoopbackUdpServer.h>

#include <ace/os_include/netinet/os_tcp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using namespace VaroCommunicationAPI;
using testing::SizeIs;

template <class Transport>
class ConnectionOptions : public testing::Test {
 protected:
  /// The one handle that is connected to the server.
  ACE_HANDLE Handle() {
    const std::vector<ACE_HANDLE> handles = HandlesConnectedTo(server.Port());
    EXPECT_THAT(handles, SizeIs(1));
    return handles.empty() ? ACE_INVALID_HANDLE : handles.front();
  }

  void OpenRaw() {
    raw.Open(L"127.0.0.1", server.Port());
    ASSERT_TRUE(raw.IsConnected());
  }

  void OpenDestination(const WindowsAgentCommon::ParameterBlock& further = {}) {
    WindowsAgentCommon::ParameterBlock parameters = Transport::Target(server.Port(), false);
    parameters.insert(further.begin(), further.end());
    destination.Initialize(parameters);
    ASSERT_TRUE(destination.IsConnected());
  }

  typename Transport::Server server;
  typename Transport::RawSocket raw;
  typename Transport::DestinationSocket destination;
};

TYPED_TEST_SUITE(ConnectionOptions, Transports);

TYPED_TEST(ConnectionOptions, ARawSocketSendsEachWriteAtOnce) {
  this->OpenRaw();
  int isOn = 0;
  int size = sizeof isOn;
  ASSERT_EQ(ACE_OS::getsockopt(this->Handle(), ACE_IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&isOn), &size), 0);
  EXPECT_NE(isOn, 0);
}

TYPED_TEST(ConnectionOptions, ADestinationLeavesKeepAliveAloneByDefault) {
  this->OpenDestination();
  EXPECT_FALSE(ReadKeepAlive(this->Handle()).isEnabled);
}

TYPED_TEST(ConnectionOptions, ADestinationSetsKeepAliveWithItsTimes) {
  this->OpenDestination({{"Socket.KeepAlive.Enabled", "true"},
                         {"Socket.KeepAlive.Time", "30000"},
                         {"Socket.KeepAlive.Interval", "2000"}});
  const KeepAlive keepAlive = ReadKeepAlive(this->Handle());
  EXPECT_TRUE(keepAlive.isEnabled);
  EXPECT_EQ(keepAlive.timeMs.value_or(30000), 30000u);
  EXPECT_EQ(keepAlive.intervalMs.value_or(2000), 2000u);
}

TYPED_TEST(ConnectionOptions, NoProcessInheritsARawSocket) {
  this->OpenRaw();
  EXPECT_FALSE(IsInherited(this->Handle()));
}

TYPED_TEST(ConnectionOptions, NoProcessInheritsADestination) {
  this->OpenDestination();
  EXPECT_FALSE(IsInherited(this->Handle()));
}

TEST(ConnectionOptionsOfUdp, NoProcessInheritsTheSocket) {
  LoopbackUdpServer server;
  UDPSocket socket;
  socket.Initialize({{"TargetPort", std::to_string(server.Port())}});
  const std::vector<ACE_HANDLE> handles = HandlesConnectedTo(server.Port());
  ASSERT_THAT(handles, SizeIs(1));
  EXPECT_FALSE(IsInherited(handles.front()));
}

}  // namespace
}  // namespace sorvex::test
