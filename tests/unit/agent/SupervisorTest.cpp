// When destinations are given up.
#include "OutletFixture.h"

#include <Supervisor.h>

#include <chrono>
#include <string>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using agent::Outlet;
using agent::Supervisor;
using testing::HasSubstr;
using SteadyClock = std::chrono::steady_clock;

class SupervisorTest : public OutletsTest {
 protected:
  /// One that is being sent an event until the gate opens.
  class Busy {
   public:
    Busy(Outlet& outlet, ScriptedTcpSocket& socket) {
      socket.onSend = [&, this](const auto&) {
        Hold();
        return socket.Accept();
      };
      m_thread = std::thread([&outlet] {
        const Outlet::Work work(outlet);
        outlet.Send(Text());
      });
      EXPECT_TRUE(isSending.Wait());
    }
    ~Busy() {
      isFree.Open();
      m_thread.join();
    }
    SteadyClock::duration Elapsed() const { return SteadyClock::now() - m_begin; }

    Gate isSending;
    Gate isFree;

   private:
    void Hold() {
      m_begin = SteadyClock::now();
      isSending.Open();
      EXPECT_TRUE(isFree.Wait());
    }

    SteadyClock::time_point m_begin;
    std::thread m_thread;
  };

  static bool WaitForEnd(const Outlet& outlet) {
    return WaitUntil([&] { return outlet.HasGivenUp(); });
  }
  std::string Loss(std::size_t number = 0) {
    testing::internal::CaptureStderr();
    m_outlets[number]->ReportLoss();
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(SupervisorTest, OneWithoutProgressIsGivenUpAndTheIdleOneIsNot) {
  m_command.giveUpAfter = 0.7;
  ScriptedTcpSocket& socket = AddTcp();
  AddTcp();
  const Supervisor supervisor(m_outlets, m_command);
  {
    const Busy busy(First(), socket);
    EXPECT_TRUE(WaitForEnd(First()));
    EXPECT_GE(busy.Elapsed(), 700ms);
  }
  EXPECT_FALSE(m_outlets[1]->HasGivenUp());
  EXPECT_FALSE(platformState.isReadingStopped) << "one is left";
  First().Close();
  EXPECT_THAT(Loss(), HasSubstr("given up, nothing could be sent for 0.7 seconds"));
}

TEST_F(SupervisorTest, WhatHasNotBeenRefusedGetsHalfASecond) {
  m_command.giveUpAfter = 0.05;
  ScriptedTcpSocket& socket = AddTcp();
  const Supervisor supervisor(m_outlets, m_command);
  const Busy busy(First(), socket);
  EXPECT_TRUE(WaitForEnd(First()));
  EXPECT_GE(busy.Elapsed(), 500ms);
  EXPECT_TRUE(WaitUntil([] { return platformState.isReadingStopped.load(); })) << "nobody is left";
}

TEST_F(SupervisorTest, WithoutALimitNothingIsGivenUpBeforeTheInputEnds) {
  ScriptedTcpSocket& socket = AddTcp();
  const Supervisor supervisor(m_outlets, m_command);
  const Busy busy(First(), socket);
  EXPECT_FALSE(WaitUntil([&] { return First().HasGivenUp(); }, 5500ms));
  EXPECT_TRUE(First().IsStalled());
  First().NoteEndOfInput();
  EXPECT_TRUE(WaitForEnd(First()));
  EXPECT_THAT(Loss(), HasSubstr("given up, nothing could be sent for 5 seconds after the end of the input"));
}

TEST_F(SupervisorTest, EventThatIsLeftOutIsProgress) {
  m_command.giveUpAfter = 2;
  m_command.parameters = {{"AppendLineFeed", "false"}};
  ScriptedTcpSocket& socket = AddTcp();
  socket.onSend = [&](const auto&) {
    socket.submitted += 1;
    std::this_thread::sleep_for(20ms);
    return -1;
  };
  const Supervisor supervisor(m_outlets, m_command);
  const Outlet::Work work(First());
  for (const auto begin = SteadyClock::now(); SteadyClock::now() - begin < 3s;) First().Send(Text(""));
  EXPECT_FALSE(First().HasGivenUp());
}

TEST_F(SupervisorTest, OneIsStalledAfterASecondWithoutProgress) {
  m_command.queued = true;
  ScriptedTcpSocket& socket = AddTcp();
  socket.onSend = [](const auto&) { return 1; };
  const Supervisor supervisor(m_outlets, m_command);
  const auto begin = SteadyClock::now();
  constexpr std::uint32_t events = 100'000;
  for (std::uint32_t number = 0; number < events; ++number) First().Send(Text());
  EXPECT_TRUE(WaitUntil([&] { return First().IsStalled(); }));
  EXPECT_GE(SteadyClock::now() - begin, 1s);
  EXPECT_TRUE(WaitUntil([&] {
    socket.sent += 1;
    return !First().IsStalled();
  }));
  EXPECT_LT(socket.sent, events) << "some still wait";
  EXPECT_TRUE(WaitUntil([&] { return First().IsStalled(); }));
  socket.sent = events;
  EXPECT_TRUE(WaitUntil([&] { return !First().IsStalled(); }));
}

/// Some systems accept every other datagram for a port on which nobody listens.
TEST_F(SupervisorTest, DatagramBetweenFailuresIsNoProgress) {
  m_command.giveUpAfter = 2;
  ScriptedUdpSocket& socket = AddUdp();
  const Supervisor supervisor(m_outlets, m_command);
  const auto begin = SteadyClock::now();
  while (!First().HasGivenUp() && SteadyClock::now() - begin < patience) {
    socket.failures += 1;
    socket.sent += 1;
    std::this_thread::sleep_for(100ms);
  }
  EXPECT_TRUE(First().HasGivenUp());
  EXPECT_GE(SteadyClock::now() - begin, 2s);
}

TEST_F(SupervisorTest, SingleFailureIsNoStreak) {
  m_command.giveUpAfter = 0.5;
  ScriptedUdpSocket& socket = AddUdp();
  ScriptedTcpSocket& other = AddTcp();
  const Supervisor supervisor(m_outlets, m_command);
  socket.failures = 1;
  {
    const Busy busy(*m_outlets[1], other);
    EXPECT_TRUE(WaitForEnd(*m_outlets[1]));
  }
  EXPECT_FALSE(First().HasGivenUp());
  m_outlets[1]->Close();
}

TEST_F(SupervisorTest, InterruptLeavesTimeToHandLinesOver) {
  AddTcp();
  const Supervisor supervisor(m_outlets, m_command);
  const auto begin = SteadyClock::now();
  platformState.isInterrupted = true;
  EXPECT_TRUE(WaitForEnd(First()));
  EXPECT_GE(SteadyClock::now() - begin, 700ms);
  EXPECT_TRUE(WaitUntil([] { return platformState.isReadingStopped.load(); }));
  First().Send(Text());
  First().Close();
  EXPECT_THAT(Loss(), HasSubstr("events not sent: 1 (the program was asked to end)"));
}

TEST_F(SupervisorTest, WritingAfterItWasGivenUpIsEndedAgainAndAgain) {
  m_command.giveUpAfter = 0.5;
  ScriptedTcpSocket& socket = AddTcp();
  // What the first call ends starts again.
  socket.onShutdown = [&] { return WaitUntil([&] { return socket.closes >= 3; }) ? 0 : -1; };
  const Supervisor supervisor(m_outlets, m_command);
  {
    const Busy busy(First(), socket);
    EXPECT_TRUE(WaitUntil([&] { return socket.closes >= 1; }));
    EXPECT_GE(busy.Elapsed(), 500ms + 1500ms) << "a queue gets its time";
  }
  First().Close();
  EXPECT_GE(socket.closes, 3);
}

TEST_F(SupervisorTest, ClosingThatLastsIsEndedAfterAnInterrupt) {
  ScriptedTcpSocket& socket = AddTcp();
  SteadyClock::time_point begin;
  socket.onShutdown = [&] {
    // Closing has begun before anything is given up.
    begin = SteadyClock::now();
    platformState.isInterrupted = true;
    return WaitUntil([&] { return socket.closes >= 1; }) ? 0 : -1;
  };
  const Supervisor supervisor(m_outlets, m_command);
  First().Close();
  EXPECT_FALSE(First().HasGivenUp());
  EXPECT_GE(SteadyClock::now() - begin, 2200ms);
  EXPECT_GE(socket.closes, 1);
  const int closes = socket.closes;
  EXPECT_FALSE(WaitUntil([&] { return socket.closes > closes + 1; }, 200ms)) << "it is closed";
}

}  // namespace
}  // namespace sorvex::test
