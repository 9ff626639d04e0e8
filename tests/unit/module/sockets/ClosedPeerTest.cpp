// What a destination socket tells of a peer that has closed the connection while nothing was sent.
#include "ScriptedStreamSocket.h"

#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

TEST(ClosedPeer, IsTheResultCodeUntilTheReconnectIsOver) {
  RecordingLogger log;
  ScriptedStreamSocket socket;
  std::vector<std::int32_t> codes;
  socket.OnResolve([&] { codes.push_back(socket.GetLastResultCode()); });
  socket.Initialize({});
  socket.Time().Advance(2s);
  socket.NextPeerStates({VaroCommunicationAPI::Platform::ErrorPeerClosed});
  EXPECT_EQ(socket.Send("x", 1), 2);
  EXPECT_THAT(codes, testing::ElementsAre(0, 10101));
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

}  // namespace
}  // namespace sorvex::test
