// What a destination socket tells of a peer that has closed the connection while nothing was sent.
#include "ScriptedStreamSocket.h"

#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

/// Keeps what the result code is when the target's name is asked for.
class WatchingSocket : public ScriptedStreamSocket {
 public:
  std::vector<std::int32_t> codes;

 protected:
  VaroCommunicationAPI::Platform::ResolvedHost ResolveTarget() override {
    codes.push_back(GetLastResultCode());
    return ScriptedStreamSocket::ResolveTarget();
  }
};

TEST(ClosedPeer, IsTheResultCodeUntilTheReconnectIsOver) {
  RecordingLogger log;
  WatchingSocket socket;
  socket.Initialize({});
  socket.Time().Advance(2s);
  socket.NextPeerStates({10101});
  EXPECT_EQ(socket.Send("x", 1), 2);
  EXPECT_THAT(socket.codes, testing::ElementsAre(0, 10101));
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

}  // namespace
}  // namespace sorvex::test
