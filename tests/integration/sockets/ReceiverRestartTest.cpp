// A receiver that is killed and restarted ten times under a load of 5,000 events a second.
#include "Receiver.h"
#include "sockets/TCPSocket.h"

#include <support/AcceleratedTime.h>
#include <support/RecordingLogger.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <optional>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

TEST(ReceiverRestart, DoublesNothingTearsNothingAndLosesOnlyWhatTheSystemHadAccepted) {
  constexpr int restarts = 10;
  constexpr auto interval = 200us;  // 5,000 a second
  // In real time, when asked: ten outages of fifteen seconds.
  const int factor = std::getenv("SORVEX_TEST_REAL_TIME") ? 1 : 10;

  RecordingLogger log;
  Reception reception;
  std::atomic<int> connections{0};
  const auto receive = [&](Receiver& self, PeerSession& session, int) {
    ++connections;
    // Reads now and then, so that the end finds unread bytes that the system had accepted.
    self.KeepAllOf(session, 65536, [] { std::this_thread::sleep_for(5ms); });
  };
  std::optional<Receiver> receiver(std::in_place, Transport::Tcp, reception, receive);
  const std::uint16_t port = receiver->Port();

  VaroCommunicationAPI::TCPSocket socket({.m_pTime = std::make_shared<AcceleratedTime>(factor)});
  socket.Initialize({{"TargetPort", std::to_string(port)}, {"Socket.BlockingSendStrategy", "false"}});

  std::atomic<bool> isDone{false};
  int submitted = 0;
  std::uint32_t refused = 0;
  std::thread producer([&] {
    auto next = std::chrono::steady_clock::now();
    while (!isDone) {
      const std::string payload = Reception::PayloadOf(submitted, 256);
      while (socket.Send(payload.data(), static_cast<std::uint32_t>(payload.size())) == -1) ++refused;
      ++submitted;
      // A steady load: what an outage delayed is not made up for.
      next = std::max(next + interval, std::chrono::steady_clock::now() - 10ms);
      std::this_thread::sleep_until(next);
    }
  });

  for (int restart = 0; restart < restarts; ++restart) {
    const int before = connections;
    std::this_thread::sleep_for(300ms);  // load
    receiver->Kill();
    receiver.reset();
    std::this_thread::sleep_for(100ms);  // outage, in which a reconnect is refused
    receiver.emplace(Transport::Tcp, reception, receive, port);
    ASSERT_TRUE(WaitUntil([&] { return connections > before; }, 60s)) << "no reconnect after restart " << restart;
  }
  isDone = true;
  producer.join();
  EXPECT_EQ(socket.Shutdown(), 0);
  // The receiver reads to the end of the stream before it ends.
  ASSERT_TRUE(WaitUntil([&] { return reception.HasPayload(submitted - 1); }));
  receiver.reset();

  const Reception::Verdict verdict = reception.Judge();
  EXPECT_EQ(verdict.complaint, "");
  EXPECT_LE(verdict.gaps, restarts);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  // Every payload that did not arrive had been accepted by the system before a cut.
  EXPECT_EQ(socket.GetMessagesSent(), static_cast<std::uint32_t>(submitted));
  EXPECT_EQ(socket.GetMessagesSubmitted(), static_cast<std::uint32_t>(submitted) + refused);
  std::cout << "[   LOST   ] " << submitted - static_cast<int>(verdict.whole) << " of " << submitted << " events in "
            << verdict.gaps << " of " << restarts << " cuts; refused and submitted again: " << refused << std::endl;
}

}  // namespace
}  // namespace sorvex::test
