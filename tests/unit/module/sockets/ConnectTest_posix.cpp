// Connecting while the system's call ends early. The call itself is scripted here.
#include "sockets/SocketStream.h"

#include <support/LoopbackTcpServer.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

namespace {

/// The next calls of this thread fail so often, and with this number.
thread_local int failures = 0;
thread_local int failureNumber = 0;

}  // namespace

// Takes the place of the C library's for this program and for the libraries that it loads.
extern "C" __attribute__((visibility("default"))) int connect(int handle, const sockaddr* address, socklen_t size) {
  if (failures > 0) {
    --failures;
    errno = failureNumber;
    return -1;
  }
  return static_cast<int>(syscall(SYS_connect, handle, address, size));
}

namespace sorvex::test {
namespace {

class Connecting : public testing::Test {
 protected:
  ~Connecting() override {
    failures = 0;
    stream.close();
  }

  std::int32_t Connect(bool isInterrupted) {
    return VaroCommunicationAPI::ConnectStream(stream, {ACE_INET_Addr(server.Port(), "127.0.0.1")},
                                               VaroCommunicationAPI::StreamUse::Exchange,
                                               [isInterrupted] { return isInterrupted; })
        .Number();
  }

  LoopbackTcpServer server;
  ACE_SOCK_Stream stream;
};

TEST_F(Connecting, GoesOnAfterSignals) {
  failures = 3;
  failureNumber = EINTR;
  EXPECT_EQ(Connect(false), 0);
  EXPECT_EQ(failures, 0);
  EXPECT_TRUE(WaitUntil([&] { return server.Connections() == 1; }));
}

TEST_F(Connecting, IsGivenUpAfterASignalWhenItIsInterrupted) {
  failures = 3;
  failureNumber = EINTR;
  EXPECT_EQ(Connect(true), 10004);
  EXPECT_EQ(failures, 2);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST_F(Connecting, ThatFailsWithoutNumberIsNoSuccess) {
  failures = 1;
  failureNumber = 0;
  EXPECT_EQ(Connect(false), 10057);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

}  // namespace
}  // namespace sorvex::test
