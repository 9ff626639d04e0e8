// Eight producers, the send thread and a reader of the counters on one socket, over each transport.
#include "Receiver.h"

#include <support/MakeDestination.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

namespace sorvex::test {
namespace {

using WindowsAgentCommon::ISocket;

constexpr int producers = 8;

class Producers : public testing::TestWithParam<Transport> {};

/// Reads every number that a socket reports, so that a race shows.
std::uint64_t ReadEverything(const ISocket& socket) {
  return socket.GetBytesSent() + socket.GetMessagesSent() + socket.GetBytesSubmitted() + socket.GetMessagesSubmitted() +
         socket.GetBytesTruncated() + socket.GetMessagesTruncated() + socket.GetBytesDropped() +
         socket.GetMessagesDropped() + socket.GetQueueSize() + static_cast<std::uint64_t>(socket.GetLastResultCode()) +
         (socket.IsOpen() ? 1 : 0) + (socket.IsConnected() ? 1 : 0);
}

TEST_P(Producers, EachKeepItsOrderAndNothingIsLost) {
  // Datagrams that a receiver's buffer cannot hold are lost, so there are fewer of them.
  const int payloadsEach = GetParam() == Transport::Udp ? 20 : 2000;
  Reception reception;
  Receiver receiver(GetParam(), reception);
  const std::unique_ptr<ISocket> socket = MakeDestination(GetParam());
  socket->Initialize({{"TargetPort", std::to_string(receiver.Port())},
                      {"Socket.BlockingSendStrategy", "false"},
                      {"Socket.QueueLowWaterMark", "10000"},
                      {"Socket.QueueHighWaterMark", "20000"},
                      {"Certificate", ToBase64(ServerIdentity().CertificatePem())}});
  ASSERT_TRUE(socket->IsConnected());

  std::atomic<bool> isDone{false};
  std::thread reader([&] {
    std::uint32_t sentBefore = 0;
    while (!isDone) {
      ReadEverything(*socket);
      const std::uint32_t sent = socket->GetMessagesSent();
      EXPECT_GE(sent, sentBefore);
      sentBefore = sent;
    }
  });
  std::vector<std::thread> threads;
  for (int producer = 0; producer < producers; ++producer) {
    threads.emplace_back([&, producer] {
      for (int number = 0; number < payloadsEach; ++number) {
        const std::string payload = std::to_string(producer) + ' ' + std::to_string(number);
        EXPECT_GT(socket->Send(payload.data(), static_cast<std::uint32_t>(payload.size())), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(socket->Shutdown(), 0);
  isDone = true;
  reader.join();

  const auto all = static_cast<std::uint32_t>(producers * payloadsEach);
  EXPECT_EQ(socket->GetMessagesSubmitted(), all);
  EXPECT_EQ(socket->GetMessagesSent(), all);
  ASSERT_TRUE(WaitUntil([&] { return reception.Payloads() == all; }));
  std::map<int, int> next;
  std::istringstream lines(reception.Text());
  int producer = 0;
  int number = 0;
  while (lines >> producer >> number) EXPECT_EQ(number, next[producer]++);
  EXPECT_EQ(next.size(), static_cast<std::size_t>(producers));
}

INSTANTIATE_TEST_SUITE_P(Transports, Producers, testing::ValuesIn(allTransports),
                         [](const testing::TestParamInfo<Transport>& test) { return Name(test.param); });

}  // namespace
}  // namespace sorvex::test
