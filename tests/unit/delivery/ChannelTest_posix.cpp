// A channel when the system gives no more threads, and when its thread ends at a certain moment.
#include <delivery/Channel.h>

#include "FakeSocket.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using delivery::Channel;

/// During its lifetime no thread can be started: its stack would be larger than the address space.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    pthread_getattr_default_np(&m_former);
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 47);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
  ~NoMoreThreads() {
    pthread_setattr_default_np(&m_former);
    pthread_attr_destroy(&m_former);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;

 private:
  pthread_attr_t m_former{};
};

std::unique_ptr<Channel> MakeChannel(
    const std::shared_ptr<FakeSocket>& socket, std::function<void()> opened = [] {}) {
  settings::DestinationSettings destination;
  destination.parameters = {{"TargetAddress", "host"}, {"TargetPort", "514"}};
  return std::make_unique<Channel>(destination, socket, std::move(opened));
}

/// Tells when the thread that made it ends. With mingw-w64 such destructors may run twice.
struct AtThreadEnd {
  std::promise<void>& hasEnded;
  ~AtThreadEnd() { hasEnded.set_value(); }
};

TEST(Channel, ClosesASocketWhoseOpeningEndsJustAfterItsShutdown) {
  std::promise<void> openerEnds;
  const std::shared_future<void> openerEnd = openerEnds.get_future().share();
  const auto socket = std::make_shared<FakeSocket>();
  socket->HoldOpening();
  socket->AtEndOfShutdown([&] {
    socket->LetOpeningEnd();
    openerEnd.wait_for(patience);
  });
  std::unique_ptr<Channel> channel =
      MakeChannel(socket, [&openerEnds] { const thread_local AtThreadEnd atThreadEnd{openerEnds}; });
  ASSERT_TRUE(WaitUntil([&] { return socket->OpenAttempts() == 1; }));
  channel.reset();
  EXPECT_FALSE(socket->IsOpen());
}

TEST(ChannelWithoutThreads, ClosesAllTheSame) {
  const auto socket = std::make_shared<FakeSocket>();
  const std::unique_ptr<Channel> channel = MakeChannel(socket);
  ASSERT_TRUE(WaitUntil([&] { return channel->HasRoom(); }));
  for (int number = 0; number < 3; ++number) ASSERT_TRUE(channel->Submit({}));
  socket->DeliverAtShutdown(2);
  {
    const NoMoreThreads noMoreThreads;
    ASSERT_THROW(std::thread([] {}), std::system_error);
    delivery::CloseChannels({channel.get()}, 20s);
  }
  EXPECT_TRUE(channel->IsClosed());
  EXPECT_FALSE(socket->IsOpen());
  EXPECT_EQ(socket->Shutdowns(), 1);
  EXPECT_EQ(channel->Done(), 2u);
}

TEST(ChannelWithoutThreads, IsDestroyedWhileItStillTriesToOpen) {
  const auto socket = std::make_shared<FakeSocket>();
  socket->FailToOpen(std::numeric_limits<int>::max());
  std::unique_ptr<Channel> channel = MakeChannel(socket);
  ASSERT_TRUE(WaitUntil([&] { return socket->OpenAttempts() > 0; }));
  const NoMoreThreads noMoreThreads;
  channel.reset();
  EXPECT_GE(socket->Shutdowns(), 1);
}

TEST(ChannelWithoutThreads, IsNotMade) {
  const NoMoreThreads noMoreThreads;
  EXPECT_THROW(MakeChannel(std::make_shared<FakeSocket>()), std::system_error);
}

}  // namespace
}  // namespace sorvex::test
