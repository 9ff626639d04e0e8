// How destination sockets come to their payload builders.
#include "ScriptedStreamSocket.h"

#include <support/RecordingLogger.h>

#include <SorvexHost/ComponentFactory.h>

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

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

// --- The texts in which payloads are built.

using VaroCommunicationAPI::SpareTexts;

TEST(PayloadTexts, AreUsedAgainAndNeverByTwo) {
  SpareTexts texts;
  std::unique_ptr<std::string> first = texts.Take();
  std::unique_ptr<std::string> second = texts.Take();
  const std::string* const kept = first.get();
  ASSERT_NE(kept, second.get());
  texts.Keep(std::move(first));
  first = texts.Take();
  EXPECT_EQ(first.get(), kept);
  EXPECT_NE(texts.Take().get(), kept);
}

TEST(PayloadTexts, AreEachTakersAlone) {
  SpareTexts texts;
  std::vector<std::future<bool>> done;
  // More than are kept.
  for (char thread = 'a'; thread < 'a' + 12; ++thread) {
    done.push_back(std::async(std::launch::async, [&texts, thread] {
      const std::string mine(100, thread);
      for (int i = 0; i < 5000; ++i) {
        std::unique_ptr<std::string> text = texts.Take();
        *text = mine;
        if (*text != mine) return false;
        texts.Keep(std::move(text));
      }
      return true;
    }));
  }
  for (std::future<bool>& each : done) EXPECT_TRUE(each.get());
}

}  // namespace
}  // namespace sorvex::test
