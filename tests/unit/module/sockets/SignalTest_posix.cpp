// Signals that reach a thread while it connects, sends or receives.
#include "Transports.h"
#include "sockets/SocketStream.h"

#include <support/BlackHole.h>
#include <support/ConnectionHandles.h>
#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

/// How many signals have been handled.
std::atomic<int> handled{0};

void Count(int) { ++handled; }

/// For the time of its life, a signal is counted, and ends the system call that it meets.
class CountedSignal {
 public:
  explicit CountedSignal(int number) : m_number(number) {
    handled = 0;
    struct sigaction action = {};
    action.sa_handler = &Count;
    sigaction(number, &action, &m_previous);
  }
  ~CountedSignal() { sigaction(m_number, &m_previous, nullptr); }
  CountedSignal(const CountedSignal&) = delete;
  CountedSignal& operator=(const CountedSignal&) = delete;

 private:
  const int m_number;
  struct sigaction m_previous = {};
};

/// Sends signals to the thread that made it, one every few milliseconds, for some seconds at most.
class Interrupter {
 public:
  Interrupter()
      : m_thread([this, target = pthread_self()] {
          for (int i = 0; i < maxSignals && !m_bStopped; ++i) {
            pthread_kill(target, SIGUSR1);
            std::this_thread::sleep_for(3ms);
          }
        }) {}
  ~Interrupter() {
    m_bStopped = true;
    m_thread.join();
  }
  Interrupter(const Interrupter&) = delete;
  Interrupter& operator=(const Interrupter&) = delete;

 private:
  static constexpr int maxSignals = 2000;

  CountedSignal m_signal{SIGUSR1};
  std::atomic<bool> m_bStopped{false};
  std::thread m_thread;
};

constexpr int manySignals = 20;

TEST(Signals, DoNotEndAConnect) {
  const BlackHole hole;
  ACE_SOCK_Stream stream;
  const Interrupter interrupter;
  EXPECT_EQ(VaroCommunicationAPI::ConnectStream(stream, {ACE_INET_Addr(hole.Port(), "127.0.0.1")},
                                                VaroCommunicationAPI::StreamUse::Exchange,
                                                [] { return handled >= manySignals; })
                .Number(),
            10004);
  EXPECT_GE(handled, manySignals);
}

template <class Transport>
class SignalsToRawSocket : public testing::Test {
 protected:
  RecordingLogger log;
  typename Transport::RawSocket socket;
};

TYPED_TEST_SUITE(SignalsToRawSocket, Transports);

TYPED_TEST(SignalsToRawSocket, DoNotEndAReceive) {
  typename TypeParam::Server server([](auto& self, auto& connection, int) {
    connection.Write("ear");
    WaitUntil([] { return handled >= manySignals; });
    connection.Write("ly and late");
    self.HoldUntilStopped();
  });
  this->socket.Open(L"127.0.0.1", server.Port());
  const Interrupter interrupter;
  char buffer[14];
  EXPECT_EQ(this->socket.Receive(buffer, 14, TypeParam::noLimit), 14);
  EXPECT_EQ(std::string(buffer, 14), "early and late");
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
}

TYPED_TEST(SignalsToRawSocket, DoNotPutOffTheTimeoutOfAReceive) {
  typename TypeParam::Server server([](auto& self, auto&, int) { self.HoldUntilStopped(); });
  this->socket.Open(L"127.0.0.1", server.Port());
  const Interrupter interrupter;
  char byte = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(this->socket.Receive(&byte, 1, 500), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(this->socket.GetLastResultCode(), 137);
  EXPECT_GE(waited, 490ms);
  EXPECT_LT(waited, 5s);
}

TYPED_TEST(SignalsToRawSocket, DoNotEndASend) {
  const std::string block(8'000'000, 'x');
  typename TypeParam::Server server = TypeParam::MakeServer(
      [](auto& self, auto& connection, int) {
        WaitUntil([] { return handled >= manySignals; });
        self.KeepAllOf(connection);
      },
      65536);
  this->socket.Open(L"127.0.0.1", server.Port());
  const Interrupter interrupter;
  EXPECT_EQ(this->socket.Send(block.data(), 8'000'000), 8'000'000);
  EXPECT_EQ(server.WaitForBytes(block.size()).size(), block.size());
}

/// Waits until the system reports one of `events` on the handle.
bool WaitForEvents(ACE_HANDLE handle, short events) {
  return WaitUntil([&] {
    pollfd waiting{handle, events, 0};
    return poll(&waiting, 1, 0) == 1 && (waiting.revents & events) != 0;
  });
}

TEST(BrokenPipeSignal, IsNotRaisedByATlsReceiveThatHasToAnswer) {
  LoopbackTlsServer server([](LoopbackTlsServer&, TlsServerSession& session, int) {
    // No record: whoever reads it sends an alert.
    session.Connection().Write("these bytes are no record of the protocol");
    session.Close();
  });
  RecordingLogger log;
  TrustingSSLTCPRawSocket socket;
  socket.Open(L"127.0.0.1", server.Port());
  ASSERT_TRUE(socket.IsConnected());
  const std::vector<ACE_HANDLE> handles = HandlesConnectedTo(server.Port());
  ASSERT_EQ(handles.size(), 1u);
  ASSERT_TRUE(WaitForEvents(handles.front(), POLLRDHUP));
  // The peer is gone, and its system says so to the first write.
  EXPECT_EQ(socket.Send("x", 1), 1);
  ASSERT_TRUE(WaitForEvents(handles.front(), POLLERR | POLLHUP));
  const CountedSignal signal(SIGPIPE);
  char byte = 0;
  EXPECT_EQ(socket.Receive(&byte, 1, 1000), -1);
  EXPECT_EQ(handled, 0);
}

}  // namespace
}  // namespace sorvex::test
