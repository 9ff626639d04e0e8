// The blocking strategy: one payload at a time, in the caller's thread.
#include "ScriptedStreamSocket.h"

#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::ElementsAre;
using testing::IsEmpty;

class StreamSendPayload : public testing::Test {
 protected:
  void Open(const WindowsAgentCommon::ParameterBlock& parameters = {}) { socket.Initialize(parameters); }
  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  RecordingLogger log;
  ScriptedStreamSocket socket;
};

TEST_F(StreamSendPayload, WritesPayloadAndLineFeedInOneWrite) {
  Open();
  EXPECT_EQ(Send("hello"), 6);
  EXPECT_THAT(socket.Written(), ElementsAre("hello\n"));
}

TEST_F(StreamSendPayload, CountsBytesWithTheLineFeed) {
  Open();
  Send("hello");
  EXPECT_EQ(socket.GetMessagesSubmitted(), 1u);
  EXPECT_EQ(socket.GetBytesSubmitted(), 5u);
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
  EXPECT_EQ(socket.GetBytesSent(), 6u);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

TEST_F(StreamSendPayload, AddsNoLineFeedWhenSwitchedOff) {
  Open({{"AppendLineFeed", "false"}});
  EXPECT_EQ(Send("hello"), 5);
  EXPECT_THAT(socket.Written(), ElementsAre("hello"));
  EXPECT_EQ(socket.GetBytesSent(), 5u);
}

TEST_F(StreamSendPayload, BeforeOpenReturnsMinusOneAndCountsNothing) {
  EXPECT_EQ(Send("hello"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
  EXPECT_EQ(socket.GetBytesSubmitted(), 0u);
  EXPECT_THAT(socket.Written(), IsEmpty());
}

TEST_F(StreamSendPayload, CountsTheLimitButSendsAllOfThePayload) {
  Open();
  const std::string payload(40000, 'x');
  EXPECT_EQ(Send(payload), 32001);
  EXPECT_EQ(socket.AllWritten(), payload + "\n");
  EXPECT_EQ(socket.GetMessagesTruncated(), 1u);
  EXPECT_EQ(socket.GetBytesTruncated(), 8000u);
  EXPECT_EQ(socket.GetBytesSubmitted(), 40000u);
  EXPECT_EQ(socket.GetBytesSent(), 40001u);
}

TEST_F(StreamSendPayload, PayloadOfTheLimitIsNotTruncated) {
  Open({{"MaxPayloadSize", "5"}});
  EXPECT_EQ(Send("12345"), 6);
  EXPECT_EQ(socket.GetMessagesTruncated(), 0u);
  EXPECT_EQ(Send("123456"), 6);
  EXPECT_EQ(socket.GetMessagesTruncated(), 1u);
  EXPECT_EQ(socket.GetBytesTruncated(), 1u);
}

TEST_F(StreamSendPayload, EmptyPayloadIsALineFeed) {
  Open();
  EXPECT_EQ(Send(""), 1);
  EXPECT_THAT(socket.Written(), ElementsAre("\n"));
}

TEST_F(StreamSendPayload, EmptyPayloadWithoutLineFeedIsAFailure) {
  Open({{"AppendLineFeed", "false"}});
  EXPECT_EQ(Send(""), -1);
}

TEST_F(StreamSendPayload, ReconnectsBeforeTheFirstPayloadWhenOpenCouldNotConnect) {
  socket.NextConnects({ErrorConnectionRefused});
  Open();
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(Send("hello"), 6);
  EXPECT_THAT(log->Lines(),
              ElementsAre("Debug Socket isn't connected; calling reconnect...", "Info Reconnect succeeded."));
  EXPECT_EQ(socket.ConnectCount(), 2);
}

TEST_F(StreamSendPayload, FailedReconnectReturnsMinusOneAfterOneSecond) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  EXPECT_EQ(Send("hello"), -1);
  EXPECT_THAT(socket.Time().Pauses(), ElementsAre(1000ms));
  EXPECT_THAT(log->Lines(),
              ElementsAre("Debug Socket isn't connected; calling reconnect...",
                          "Warn Reconnect failed; will try again later. Reason: " + ErrorConnectionRefused.Text()));
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_EQ(socket.GetMessagesSent(), 0u);
}

TEST_F(StreamSendPayload, SendPayloadReturnsMinusTwoWithoutConnection) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  EXPECT_EQ(socket.SendPayload("a", 1), -2);
}

TEST_F(StreamSendPayload, ReconnectsAtMostEveryFifteenSecondsAfterAFailedOne) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  ASSERT_EQ(socket.ConnectCount(), 1);
  // Each refused payload pauses a second: the first tries to reconnect, fourteen do not, the sixteenth does.
  for (int i = 0; i < 15; ++i) EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.ConnectCount(), 2);
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.ConnectCount(), 3);
}

TEST_F(StreamSendPayload, AClockSetBackDoesNotDelayTheReconnect) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  Send("x");
  socket.Time().SetWallClock(0s);
  socket.Time().Advance(15s);
  EXPECT_EQ(Send("y"), 2);
}

TEST_F(StreamSendPayload, NextReconnectTimeIsFifteenSecondsAfterTheFailedAttempt) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  socket.Time().SetWallClock(1'700'000'000s);
  Open();
  EXPECT_EQ(socket.GetNextReconnectTime(), ACE_Time_Value::zero);
  Send("x");
  EXPECT_EQ(socket.GetNextReconnectTime(), ACE_Time_Value(1'700'000'015));
}

TEST_F(StreamSendPayload, TimesTellAttemptsSuccessesAndFailures) {
  socket.Time().SetWallClock(1000s);
  socket.NextConnects({ErrorNone, ErrorConnectionRefused});
  Open();
  EXPECT_EQ(socket.GetLastConnectAttemptTime(), ACE_Time_Value(1000));
  EXPECT_EQ(socket.GetConnectedSinceTime(), ACE_Time_Value(1000));
  EXPECT_EQ(socket.GetLastConnectFailureTime(), ACE_Time_Value::zero);
  socket.Time().SetWallClock(2000s);
  EXPECT_FALSE(socket.Connect());
  EXPECT_EQ(socket.GetLastConnectAttemptTime(), ACE_Time_Value(2000));
  EXPECT_EQ(socket.GetConnectedSinceTime(), ACE_Time_Value(1000));
  EXPECT_EQ(socket.GetLastConnectFailureTime(), ACE_Time_Value(2000));
}

TEST_F(StreamSendPayload, NextReconnectTimeIsZeroAfterASuccessfulConnect) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  Send("x");
  ASSERT_NE(socket.GetNextReconnectTime(), ACE_Time_Value::zero);
  ASSERT_TRUE(socket.Connect());
  EXPECT_EQ(socket.GetNextReconnectTime(), ACE_Time_Value::zero);
}

TEST_F(StreamSendPayload, ASuccessfulConnectEndsTheWaitForTheNext) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  Open();
  Send("x");
  ASSERT_TRUE(socket.Connect());
  socket.Close();
  EXPECT_EQ(Send("y"), 2);
}

TEST_F(StreamSendPayload, TimesAreThoseAtWhichAnAttemptBegan) {
  SocketError result;
  socket.OnConnect([&] {
    socket.Time().Advance(4s);
    return result;
  });
  socket.Time().SetWallClock(1000s);
  Open();
  EXPECT_EQ(socket.GetLastConnectAttemptTime(), ACE_Time_Value(1000));
  EXPECT_EQ(socket.GetConnectedSinceTime(), ACE_Time_Value(1000));
  result = ErrorConnectionRefused;
  EXPECT_FALSE(socket.Connect());
  EXPECT_EQ(socket.GetLastConnectFailureTime(), ACE_Time_Value(1004));
  Send("x");
  EXPECT_EQ(socket.GetLastConnectFailureTime(), ACE_Time_Value(1008));
  EXPECT_EQ(socket.GetNextReconnectTime(), ACE_Time_Value(1008 + 15));
}

TEST_F(StreamSendPayload, NextReconnectTimeIsNowOnceTheConnectionIsLost) {
  const ScriptedWrite losses[] = {{0, ErrorConnectionReset}, {2, ErrorWaitTimeout}, {2, ErrorWouldBlock}};
  Open();
  for (const ScriptedWrite& loss : losses) {
    ASSERT_TRUE(socket.Connect());
    ASSERT_EQ(socket.GetNextReconnectTime(), ACE_Time_Value::zero);
    const ACE_Time_Value now = socket.Time().WallClock();
    socket.NextWrites({loss});
    EXPECT_EQ(Send("one"), -1);
    EXPECT_FALSE(socket.IsConnected());
    EXPECT_EQ(socket.GetNextReconnectTime(), now) << loss.error.Number();
  }
}

TEST_F(StreamSendPayload, WriteErrorIsLoggedAndTheNextPayloadReconnectsAtOnce) {
  Open();
  socket.NextWrites({{0, ErrorConnectionReset}});
  EXPECT_EQ(Send("one"), -1);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
  EXPECT_THAT(socket.Time().Pauses(), IsEmpty());
  EXPECT_EQ(Send("two"), 4);
  EXPECT_THAT(log->Lines(),
              ElementsAre("Error Error sending data: 10054",
                          "Warn Socket connection problem (error = '" + ErrorConnectionReset.Text() +
                              "'). Trying to reconnect...",
                          "Debug Socket isn't connected; calling reconnect...", "Info Reconnect succeeded."));
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
}

TEST_F(StreamSendPayload, TimeoutPausesATenthOfASecondAndKeepsTheConnection) {
  Open();
  socket.NextWrites({{0, ErrorWaitTimeout}});
  EXPECT_EQ(Send("one"), -1);
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_THAT(socket.Time().Pauses(), ElementsAre(100ms));
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 137", "Debug Socket timeout."));
  EXPECT_EQ(socket.GetLastResultCode(), 137);
}

TEST_F(StreamSendPayload, WouldBlockKeepsTheConnection) {
  Open();
  socket.NextWrites({{0, ErrorWouldBlock}});
  EXPECT_EQ(Send("one"), -1);
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_THAT(socket.Time().Pauses(), IsEmpty());
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10035", "Debug Would block."));
}

TEST_F(StreamSendPayload, APayloadCutByATimeoutEndsTheConnection) {
  Open();
  socket.NextWrites({{2, ErrorWaitTimeout}});
  EXPECT_EQ(Send("one"), -1);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(Send("one"), 4);
  EXPECT_THAT(socket.Written(), ElementsAre("on", "one\n"));
}

TEST_F(StreamSendPayload, APayloadWithoutItsLineFeedCountsAsSent) {
  Open();
  socket.NextWrites({{3, ErrorConnectionReset}});
  EXPECT_EQ(Send("one"), 4);
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
  EXPECT_EQ(socket.GetBytesSent(), 3u);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(log->Count("Error Error sending data: 10054"), 1u);
}

TEST_F(StreamSendPayload, SuccessClearsTheResultCode) {
  Open();
  socket.NextWrites({{0, ErrorConnectionReset}});
  Send("one");
  Send("two");
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

TEST_F(StreamSendPayload, AConnectionSilentForMoreThanASecondIsLookedAtFirst) {
  Open();
  Send("one");
  socket.Time().Advance(1000ms);
  Send("two");
  EXPECT_EQ(socket.PeerStateCount(), 0);
  socket.Time().Advance(1001ms);
  Send("three");
  EXPECT_EQ(socket.PeerStateCount(), 1);
}

TEST_F(StreamSendPayload, AClosedPeerIsReconnectedBeforeThePayloadIsWritten) {
  Open();
  Send("one");
  socket.Time().Advance(2s);
  socket.NextPeerStates({ErrorPeerClosed});
  EXPECT_EQ(Send("two"), 4);
  EXPECT_EQ(socket.ConnectCount(), 2);
  EXPECT_THAT(socket.Written(), ElementsAre("one\n", "two\n"));
  EXPECT_THAT(
      log->Lines(),
      ElementsAre("Warn Socket connection problem (error = '" + ErrorPeerClosed.Text() + "'). Trying to reconnect...",
                  "Debug Socket isn't connected; calling reconnect...", "Info Reconnect succeeded."));
}

TEST_F(StreamSendPayload, ResolvesTheNameAnewAtEachConnect) {
  socket.NextResolveErrors({ErrorHostNotFound, ErrorHostNotFound});
  Open();
  EXPECT_EQ(socket.GetLastResultCode(), ErrorHostNotFound.Number());
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(log->Count("Warn Reconnect failed; will try again later. Reason: " + ErrorHostNotFound.Text()), 1u);
  socket.Time().Advance(15s);
  EXPECT_EQ(Send("y"), 2);
  EXPECT_EQ(socket.ResolveCount(), 3);
  EXPECT_EQ(socket.ConnectCount(), 1);
}

TEST_F(StreamSendPayload, KeepAliveIsLeftAloneByDefault) {
  Open();
  EXPECT_EQ(socket.KeepAlive(), std::nullopt);
}

TEST_F(StreamSendPayload, KeepAliveTimesDefaultToAMinuteAndFiveSeconds) {
  Open({{"Socket.KeepAlive.Enabled", "true"}});
  EXPECT_EQ(socket.KeepAlive(), std::make_pair(60000u, 5000u));
}

TEST_F(StreamSendPayload, KeepAliveTimesAreTakenFromTheParameters) {
  Open({{"Socket.KeepAlive.Enabled", "true"}, {"Socket.KeepAlive.Time", "1234"}, {"Socket.KeepAlive.Interval", "567"}});
  EXPECT_EQ(socket.KeepAlive(), std::make_pair(1234u, 567u));
}

TEST_F(StreamSendPayload, KeepAliveThatCannotBeSetKeepsTheConnection) {
  socket.FailKeepAlive(SocketError(22));
  Open({{"Socket.KeepAlive.Enabled", "true"}});
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(log->Lines().size(), 1u);
  EXPECT_TRUE(log->Lines().front().starts_with("Warn keep-alive failed: "));
}

TEST_F(StreamSendPayload, AddressAndPortDefaultToTheLocalSyslogReceiver) {
  Open();
  EXPECT_EQ(socket.GetHost(), L"127.0.0.1");
  EXPECT_EQ(socket.GetPort(), 514u);
}

TEST_F(StreamSendPayload, ShutdownClosesAndReturnsZero) {
  Open();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_TRUE(socket.IsOpen());
}

TEST_F(StreamSendPayload, AnUnreadableValueTakesItsDefault) {
  Open({{"TargetPort", "many"}, {"AppendLineFeed", "perhaps"}, {"Socket.BlockingSendStrategy", "?"}});
  EXPECT_EQ(socket.GetPort(), 514u);
  EXPECT_EQ(Send("x"), 2);
}

TEST_F(StreamSendPayload, SendEventWithoutPayloadFactoryReturnsMinusOne) {
  Open();
  EXPECT_EQ(socket.SendEvent({}), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
}

}  // namespace
}  // namespace sorvex::test
