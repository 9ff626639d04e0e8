// One destination of the command that sends lines, and its counters.
#include "OutletFixture.h"

#include <chrono>
#include <string>
#include <thread>

namespace sorvex::agent {

// The program's own functions, which this test does not link.
std::string GetHostName() { return "this-host"; }
bool IsInterrupted() { return test::platformState.isInterrupted; }
void StopReading() { test::platformState.isReadingStopped = true; }

}  // namespace sorvex::agent

namespace sorvex::test {
namespace {

using agent::Outlet;
using agent::OutletActivity;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class OutletTest : public OutletsTest {
 protected:
  std::string Counters() {
    testing::internal::CaptureStdout();
    First().PrintCounters();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
  std::string Loss() {
    testing::internal::CaptureStderr();
    First().ReportLoss();
    return testing::internal::GetCapturedStderr();
  }
  std::string SendAndGetErrors(const std::vector<std::string>& texts) {
    testing::internal::CaptureStderr();
    for (const std::string& text : texts) First().Send(Text(text));
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(OutletTest, SocketGetsTheDestinationAndTheStrategy) {
  m_command.queued = true;
  m_command.builder = "RawPayloadBuilder";
  m_command.parameters = {{"MaxPayloadSize", "100"}};
  ScriptedTcpSocket& socket = AddTcp();
  First().Open();
  const WindowsAgentCommon::ParameterBlock expected = {{"MaxPayloadSize", "100"},
                                                       {"TargetAddress", "a"},
                                                       {"TargetPort", "1"},
                                                       {"Socket.BlockingSendStrategy", "false"},
                                                       {"PayloadBuilderType", "RawPayloadBuilder"}};
  EXPECT_EQ(socket.parameters, expected);
  First().Close();
}

TEST_F(OutletTest, RefusedEventIsTriedAgainUntilItIsSent) {
  ScriptedTcpSocket& socket = AddTcp();
  int attempts = 0;
  socket.onSend = [&](const auto&) {
    attempts += 1;
    if (attempts == 2) return -1;
    return attempts < 4 ? socket.Refuse() : socket.Accept();
  };
  First().Send(Text());
  EXPECT_EQ(attempts, 4);
  EXPECT_EQ(First().Refused(), 3u);
  // A socket that is not open counts nothing.
  EXPECT_THAT(Counters(),
              AllOf(HasSubstr("\nrefused: 2\n"), HasSubstr("\nrefused-closed: 1\n"), HasSubstr("\nunsent: 0\n")));
  First().Close();
  EXPECT_TRUE(First().HasSentAll(1));
}

TEST_F(OutletTest, RefusalAfterSentEventsIsCountedAsSubmitted) {
  ScriptedTcpSocket& socket = AddTcp();
  for (int number = 0; number < 3; ++number) First().Send(Text());
  int attempts = 0;
  socket.onSend = [&](const auto&) { return attempts++ == 0 ? -1 : socket.Accept(); };
  First().Send(Text());
  attempts = 0;
  socket.onSend = [&](const auto&) { return attempts++ == 0 ? socket.Refuse() : socket.Accept(); };
  First().Send(Text());
  EXPECT_THAT(Counters(), AllOf(HasSubstr("\nrefused: 1\n"), HasSubstr("\nrefused-closed: 1\n")));
}

TEST_F(OutletTest, BlockingSocketThatSentAnEmptyPayloadHasTakenIt) {
  ScriptedTcpSocket& socket = AddTcp();
  socket.onSend = [&](const auto&) {
    socket.submitted += 1;
    socket.sent += 1;
    return -1;
  };
  EXPECT_EQ(SendAndGetErrors({""}), "");
  EXPECT_EQ(First().Refused(), 0u);
  EXPECT_EQ(First().Unsent(), 0u);
}

TEST_F(OutletTest, QueuedSocketThatSentAnotherEventHasNotTakenThisOne) {
  m_command.queued = true;
  ScriptedTcpSocket& socket = AddTcp();
  int attempts = 0;
  socket.onSend = [&](const auto&) {
    socket.Accept();
    return ++attempts == 1 ? -1 : 1;
  };
  First().Send(Text());
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(First().Refused(), 1u);
}

TEST_F(OutletTest, EmptyPayloadThatHasNoBytesIsLeftOutAndToldOfOnce) {
  m_command.parameters = {{"AppendLineFeed", "false"}};
  ScriptedTcpSocket& socket = AddTcp();
  socket.onSend = [&](const WindowsAgentCommon::Event& event) {
    if (!event.m_strText.empty()) return socket.Accept();
    socket.submitted += 1;
    return -1;
  };
  EXPECT_EQ(SendAndGetErrors({"", "", "text"}),
            "sorvex-agent: tcp://a:1: events that are empty or too long for a datagram are not sent\n");
  EXPECT_EQ(First().Unsent(), 2u);
  First().Close();
  EXPECT_FALSE(First().HasSentAll(1)) << "two events are missing";
  EXPECT_EQ(Loss(), "sorvex-agent: tcp://a:1: events not sent: 2 (they are empty or too long for a datagram)\n");
}

TEST_F(OutletTest, EmptyPayloadIsTriedAgainWhereItHasBytesOrNoConnection) {
  for (const bool hasBytes : {true, false}) {
    m_outlets.clear();
    m_command.parameters = {{"AppendLineFeed", hasBytes ? "true" : "false"}};
    ScriptedTcpSocket& socket = AddTcp();
    socket.isConnected = hasBytes;
    int attempts = 0;
    socket.onSend = [&](const auto&) {
      if (++attempts == 2) return socket.Accept();
      socket.submitted += 1;
      return -1;
    };
    First().Send(Text(""));
    EXPECT_EQ(attempts, 2) << hasBytes;
    EXPECT_EQ(First().Unsent(), 0u) << hasBytes;
  }
}

TEST_F(OutletTest, OnlyADatagramCanBeTooLong) {
  ScriptedUdpSocket& udp = AddUdp();
  udp.lastResult = 10040;
  int attempts = 0;
  udp.onSend = [&](const auto&) { return ++attempts == 1 ? udp.Refuse() : udp.Accept(); };
  EXPECT_NE(SendAndGetErrors({"text"}), "");
  EXPECT_EQ(First().Unsent(), 1u);
  udp.lastResult = 10061;
  attempts = 0;
  First().Send(Text());
  EXPECT_EQ(attempts, 2) << "another error may pass";
  EXPECT_EQ(First().Unsent(), 1u);
}

/// What its send thread has dropped says nothing about the event for which the queue has no room.
TEST_F(OutletTest, EventRefusedByAQueueIsTriedAgainWhateverWasDropped) {
  m_command.queued = true;
  ScriptedUdpSocket& socket = AddUdp();
  socket.lastResult = 10040;
  int attempts = 0;
  socket.onSend = [&](const auto&) { return ++attempts == 1 ? socket.Refuse() : socket.Accept(); };
  First().Send(Text());
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(First().Unsent(), 0u);
}

TEST_F(OutletTest, EventThatWasNotSubmittedIsTriedAgain) {
  m_command.parameters = {{"AppendLineFeed", "false"}};
  ScriptedTcpSocket& socket = AddTcp();
  int attempts = 0;
  socket.onSend = [&](const auto&) { return ++attempts == 1 ? -1 : socket.Accept(); };
  First().Send(Text());
  EXPECT_EQ(attempts, 2);
  EXPECT_EQ(First().Unsent(), 0u);
}

TEST_F(OutletTest, SocketThatCannotBeOpenedIsGivenUpWithItsReason) {
  ScriptedTcpSocket& socket = AddTcp();
  socket.onInitialize = [] { throw std::runtime_error("no certificate"); };
  First().Open();
  EXPECT_TRUE(First().HasGivenUp());
  First().Send(Text());
  EXPECT_EQ(socket.submitted, 0u);
  First().Close();
  EXPECT_EQ(Loss(), "sorvex-agent: tcp://a:1: events not sent: 1 (no certificate)\n");
  EXPECT_FALSE(First().HasSentAll(0));
}

TEST_F(OutletTest, HostWithoutAnAddressForDatagramsIsGivenUp) {
  ScriptedUdpSocket& socket = AddUdp();
  socket.isConnected = false;
  socket.lastResult = 10047;
  First().Open();
  EXPECT_TRUE(First().HasGivenUp());
  First().Close();
  EXPECT_EQ(Loss(), "sorvex-agent: udp://a:1: UDP destinations are IPv4 only, and the host has only IPv6 addresses\n");
  EXPECT_FALSE(First().HasSentAll(0)) << "not even without events";
}

TEST_F(OutletTest, DatagramsWaitForAHostThatIsAwayForAnotherReason) {
  ScriptedUdpSocket& socket = AddUdp();
  socket.isConnected = false;
  socket.lastResult = 10061;
  First().Open();
  EXPECT_FALSE(First().HasGivenUp());
}

TEST_F(OutletTest, OutletGivenUpBeforeItIsOpenedStaysClosed) {
  ScriptedTcpSocket& socket = AddTcp();
  bool isInitialized = false;
  socket.onInitialize = [&] { isInitialized = true; };
  First().GiveUp("asked to end");
  First().Open();
  EXPECT_FALSE(isInitialized);
  First().Close();
}

TEST_F(OutletTest, GivingUpEndsTheWaitForAnotherAttempt) {
  ScriptedTcpSocket& socket = AddTcp();
  Gate isRefused;
  socket.onSend = [&](const auto&) {
    isRefused.Open();
    return -1;
  };
  std::thread sending([&] { First().Send(Text()); });
  EXPECT_TRUE(isRefused.Wait());
  First().GiveUp("first reason");
  sending.join();
  First().GiveUp("second reason");
  First().Close();
  EXPECT_EQ(First().Unsent(), 1u);
  EXPECT_EQ(Loss(), "sorvex-agent: tcp://a:1: events not sent: 1 (first reason)\n");
}

/// A blocking socket that was shut down just before a thread sends is connected again by that thread.
TEST_F(OutletTest, SocketIsShutDownAgainAsLongAsAThreadUsesIt) {
  ScriptedTcpSocket& socket = AddTcp();
  bool isShutDownAgain = false;
  socket.onSend = [&](const auto&) {
    const int before = socket.shutdowns;
    First().GiveUp("asked to end");
    isShutDownAgain = WaitUntil([&] { return socket.shutdowns >= before + 3; });
    return -1;
  };
  {
    const Outlet::Work work(First());
    First().Send(Text());
  }
  EXPECT_TRUE(isShutDownAgain);
  First().Close();
  const int last = socket.shutdowns;
  EXPECT_TRUE(First().IsClosed());
  EXPECT_EQ(socket.shutdowns, last);
}

TEST_F(OutletTest, SocketThatIsUsedBetweenItsShutdownAndTheEndOfTheWorkIsShutDownAgain) {
  ScriptedTcpSocket& socket = AddTcp();
  Gate isSending;
  Gate isShutDown;
  std::atomic<bool> isOpen{true};
  socket.onSend = [&](const auto&) {
    isSending.Open();
    EXPECT_TRUE(isShutDown.Wait());
    isOpen = true;
    return socket.Accept();
  };
  socket.onShutdown = [&] {
    isOpen = false;
    isShutDown.Open();
    return WaitUntil([&] { return !First().GetActivity().isPending; }) ? 0 : -1;
  };
  std::thread sending([&] {
    const Outlet::Work work(First());
    First().Send(Text());
  });
  EXPECT_TRUE(isSending.Wait());
  First().GiveUp("asked to end");
  sending.join();
  First().Close();
  EXPECT_FALSE(isOpen);
}

TEST_F(OutletTest, OneWithoutWorkIsShutDownOnce) {
  ScriptedTcpSocket& socket = AddTcp();
  First().GiveUp("asked to end");
  First().Close();
  EXPECT_EQ(socket.shutdowns, 1);
}

TEST_F(OutletTest, NothingIsGivenUpOnceClosingHasBegun) {
  ScriptedTcpSocket& socket = AddTcp();
  socket.onShutdown = [&] {
    First().GiveUp("too late");
    return 0;
  };
  First().Send(Text());
  First().Close();
  EXPECT_FALSE(First().HasGivenUp());
  EXPECT_TRUE(First().HasSentAll(1));
  EXPECT_EQ(Loss(), "");
}

TEST_F(OutletTest, SocketThatDidNotEndProperlyHasNotSentAll) {
  ScriptedTcpSocket& socket = AddTcp();
  socket.onShutdown = [] { return -1; };
  First().Send(Text());
  EXPECT_FALSE(First().HasSentAll(1)) << "it is not closed";
  First().Close();
  EXPECT_FALSE(First().HasSentAll(1));
}

TEST_F(OutletTest, AllHaveBeenSentAlsoWhenTheSocketsCounterHasWrapped) {
  ScriptedTcpSocket& socket = AddTcp();
  First().Close();
  socket.sent = 5;
  EXPECT_TRUE(First().HasSentAll(0x1'0000'0005));
  EXPECT_FALSE(First().HasSentAll(0x1'0000'0006));
}

TEST_F(OutletTest, EventsLeftOutAreCountedByTheirReason) {
  AddTcp();
  First().CountLeftOut(2);
  First().GiveUp("asked to end");
  First().CountLeftOut(3);
  First().Close();
  EXPECT_EQ(First().Unsent(), 5u);
  EXPECT_EQ(Loss(),
            "sorvex-agent: tcp://a:1: events not sent: 2 (nothing was taken while other destinations went on)\n"
            "sorvex-agent: tcp://a:1: events not sent: 3 (asked to end)\n");
}

TEST_F(OutletTest, DroppedEventsAreToldOfByTheKindOfTheirDestination) {
  for (const bool isUdp : {false, true}) {
    m_outlets.clear();
    std::atomic<std::uint32_t>& dropped = isUdp ? AddUdp().dropped : AddTcp().dropped;
    dropped = 2;
    First().Close();
    EXPECT_THAT(Loss(), HasSubstr(isUdp ? " (they were still queued at the end, or are no datagrams)\n"
                                        : ": events not sent: 2 (they were still queued at the end)\n"));
  }
}

TEST_F(OutletTest, BlockingOutletIsPendingWhileItWorks) {
  ScriptedTcpSocket& socket = AddTcp();
  OutletActivity first;
  OutletActivity again;
  int attempts = 0;
  socket.onSend = [&](const auto&) {
    attempts += 1;
    (attempts == 1 ? first : again) = First().GetActivity();
    return attempts == 1 ? socket.Refuse() : socket.Accept();
  };
  EXPECT_FALSE(First().GetActivity().isPending);
  {
    const Outlet::Work work(First());
    First().Send(Text());
    EXPECT_TRUE(first.isPending);
    EXPECT_FALSE(first.isRefused);
    EXPECT_TRUE(again.isRefused);
    EXPECT_EQ(first.beganNumber, again.beganNumber);

    attempts = 0;
    const std::uint64_t firstNumber = first.beganNumber;
    First().Send(Text());
    EXPECT_NE(first.beganNumber, firstNumber);
    EXPECT_FALSE(first.isRefused) << "another event was";
  }
  EXPECT_FALSE(First().GetActivity().isPending);
  EXPECT_FALSE(First().GetActivity().isRefused);
}

TEST_F(OutletTest, QueuedOutletIsPendingWhileEventsWait) {
  m_command.queued = true;
  ScriptedTcpSocket& socket = AddTcp();
  socket.onSend = [&](const auto&) { return 1; };
  First().Send(Text());
  const OutletActivity one = First().GetActivity();
  EXPECT_TRUE(one.isPending);
  First().Send(Text());
  EXPECT_EQ(First().GetActivity().beganNumber, one.beganNumber) << "accepting more is no progress";
  EXPECT_EQ(First().GetActivity().moved, one.moved);
  socket.sent = 1;
  EXPECT_NE(First().GetActivity().moved, one.moved);
  EXPECT_TRUE(First().GetActivity().isPending);
  socket.dropped = 1;
  EXPECT_FALSE(First().GetActivity().isPending);
  // Its thread may have sent an event that has not been counted as accepted yet.
  socket.sent = 2;
  EXPECT_FALSE(First().GetActivity().isPending);
}

TEST_F(OutletTest, FailuresAreThoseOfADatagramSocket) {
  ScriptedUdpSocket& socket = AddUdp();
  socket.failures = 3;
  EXPECT_EQ(First().GetActivity().failures, 3u);
  EXPECT_THAT(Counters(), HasSubstr("\nconsecutive-send-failures: 3\n"));
}

TEST_F(OutletTest, AbandonedOutletClosesItsSocketEveryTime) {
  ScriptedTcpSocket& socket = AddTcp();
  First().Abandon();
  First().Abandon();
  EXPECT_EQ(socket.closes, 2);
  EXPECT_EQ(socket.shutdowns, 0);
}

}  // namespace
}  // namespace sorvex::test
