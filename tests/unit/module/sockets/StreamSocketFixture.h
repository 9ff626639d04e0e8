// A destination socket over a stream transport, and what its tests do with it again and again.
#pragma once

#include "Transports.h"

#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace sorvex::test {

template <class Transport>
class StreamSocketFixture : public testing::Test {
 protected:
  ~StreamSocketFixture() override { socket.Shutdown(); }

  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  /// Sends "one", and "two" after `isReady` has come about and the socket has come to look at its connection before
  /// it writes. Both have to arrive.
  void SendOneAndTwo(typename Transport::Server& server, const std::atomic<bool>& isReady) {
    socket.Initialize(Transport::Target(server.Port(), true));
    Send("one");
    ASSERT_EQ(server.WaitForBytes(4), "one\n");
    ASSERT_TRUE(WaitUntil([&] { return isReady.load(); }));
    // A connection on which nothing was written for more than a second is looked at.
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
    Send("two");
    ASSERT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  }

  /// Shuts the socket down, which may take no longer than it gives a receiver that takes nothing.
  void ShutdownWithinTwoSeconds() {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(socket.Shutdown(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  }

  RecordingLogger log;
  typename Transport::DestinationSocket socket;
};

}  // namespace sorvex::test
