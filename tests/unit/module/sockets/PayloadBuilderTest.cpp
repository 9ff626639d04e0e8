// How destination sockets come to their payload builders.
#include "ScriptedStreamSocket.h"

#include <support/RecordingLogger.h>

#include <SorvexHost/ComponentFactory.h>

#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

class DestinationPayload : public testing::Test {
 protected:
  DestinationPayload() {
    components.RegisterBuiltInServices();
    components.Install();
    EXPECT_TRUE(components.LoadService("IPayloadFactory"));
    event.m_strText = "what happened";
  }

  RecordingLogger log;
  WindowsAgentCommon::ComponentFactory components;
  WindowsAgentCommon::Event event;
};

TEST_F(DestinationPayload, IsBuiltForSyslogUnlessToldOtherwise) {
  ScriptedStreamSocket socket;
  socket.Initialize({});
  EXPECT_GT(socket.SendEvent(event), 0);
  EXPECT_TRUE(socket.AllWritten().starts_with("<14>1 ")) << socket.AllWritten();
}

TEST_F(DestinationPayload, IsBuiltAsTheParametersSay) {
  ScriptedStreamSocket socket;
  socket.Initialize({{"PayloadBuilderType", "RawPayloadBuilder"}});
  EXPECT_EQ(socket.SendEvent(event), 14);
  EXPECT_EQ(socket.AllWritten(), "what happened\n");
}

TEST_F(DestinationPayload, FallsBackToSyslogForAnUnknownBuilder) {
  ScriptedStreamSocket socket;
  socket.Initialize({{"PayloadBuilderType", "NoSuchBuilder"}});
  EXPECT_GT(socket.SendEvent(event), 0);
  EXPECT_TRUE(socket.AllWritten().starts_with("<14>1 ")) << socket.AllWritten();
}

TEST_F(DestinationPayload, SendEventReturnsWhatSendReturns) {
  ScriptedStreamSocket socket;
  EXPECT_EQ(socket.SendEvent(event), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
}

}  // namespace
}  // namespace sorvex::test
