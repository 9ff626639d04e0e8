// A receiver that is killed and restarted ten times under a load of 5,000 events a second.
#include "sockets/TCPSocket.h"

#include <support/AcceleratedTime.h>
#include <support/LoopbackTcpServer.h>
#include <support/RecordingLogger.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <optional>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

/// What a receiver has received over all its lives: the numbers of whole lines, in order of arrival.
class Journal {
 public:
  /// Takes one connection's bytes; an unfinished last line was cut by the receiver's end and does not count.
  void AddConnection(const std::string& bytes) {
    const std::lock_guard lock(m_mutex);
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = bytes.find('\n', begin)) != std::string::npos; begin = end + 1) {
      m_lines.push_back(bytes.substr(begin, end - begin));
    }
  }
  std::vector<std::string> Lines() const {
    const std::lock_guard lock(m_mutex);
    return m_lines;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

std::string PayloadOf(int number) {
  std::string text = std::to_string(number) + ' ';
  text.resize(256, static_cast<char>('a' + number % 26));
  return text;
}

TEST(ReceiverRestart, DoublesNothingTearsNothingAndLosesOnlyWhatTheSystemHadAccepted) {
  constexpr int restarts = 10;
  constexpr auto interval = 200us;  // 5,000 a second
  // In real time, when asked: ten outages of fifteen seconds.
  const int factor = std::getenv("SORVEX_TEST_REAL_TIME") ? 1 : 10;

  RecordingLogger log;
  Journal journal;
  std::atomic<int> connections{0};
  const auto receive = [&](LoopbackTcpServer&, ServerConnection& connection, int) {
    ++connections;
    // Reads now and then, so that the end finds unread bytes that the system had accepted.
    std::string bytes;
    while (connection.ReadSome(bytes, 65536)) std::this_thread::sleep_for(5ms);
    journal.AddConnection(bytes);
  };
  std::optional<LoopbackTcpServer> receiver(std::in_place, receive);
  const std::uint16_t port = receiver->Port();

  VaroCommunicationAPI::TCPSocket socket({.m_pTime = std::make_shared<AcceleratedTime>(factor)});
  socket.Initialize({{"TargetPort", std::to_string(port)}, {"Socket.BlockingSendStrategy", "false"}});

  std::atomic<bool> isDone{false};
  int submitted = 0;
  std::uint32_t refused = 0;
  std::thread producer([&] {
    auto next = std::chrono::steady_clock::now();
    while (!isDone) {
      const std::string payload = PayloadOf(submitted);
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
    receiver.emplace(receive, port);
    ASSERT_TRUE(WaitUntil([&] { return connections > before; }, 60s)) << "no reconnect after restart " << restart;
  }
  isDone = true;
  producer.join();
  EXPECT_EQ(socket.Shutdown(), 0);
  // The receiver reads to the end of the stream before it ends.
  ASSERT_TRUE(WaitUntil([&] {
    const auto lines = journal.Lines();
    return !lines.empty() && lines.back() == PayloadOf(submitted - 1);
  }));
  receiver.reset();

  int expected = 0;
  int lost = 0;
  int gaps = 0;
  for (const std::string& line : journal.Lines()) {
    const int number = std::atoi(line.c_str());
    ASSERT_EQ(line, PayloadOf(number)) << "torn";
    ASSERT_GE(number, expected) << "doubled, or out of order";
    if (number > expected) ++gaps;
    lost += number - expected;
    expected = number + 1;
  }
  EXPECT_EQ(expected, submitted);
  EXPECT_LE(gaps, restarts);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  // Every payload that did not arrive had been accepted by the system before a cut.
  EXPECT_EQ(socket.GetMessagesSent(), static_cast<std::uint32_t>(submitted));
  EXPECT_EQ(socket.GetMessagesSubmitted(), static_cast<std::uint32_t>(submitted) + refused);
  std::cout << "[   LOST   ] " << lost << " of " << submitted << " events in " << gaps << " of " << restarts
            << " cuts; refused and submitted again: " << refused << std::endl;
}

}  // namespace
}  // namespace sorvex::test
