// The queue of payloads without memory. A sanitizer would end the program instead.
#include "sockets/PayloadQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::FramedPayloads;
using VaroCommunicationAPI::PayloadQueue;

TEST(QueueWithoutMemory, RefusesThePayloadAndKeepsTheOthers) {
  constexpr std::chrono::milliseconds atOnce(0);
  // Nothing of it is read: the memory comes first.
  const char byte = 'x';
  const std::string_view tooLong(&byte, std::numeric_limits<std::size_t>::max() / 4);
  PayloadQueue queue;
  FramedPayloads payloads;
  EXPECT_FALSE(queue.Put(tooLong, atOnce));
  EXPECT_EQ(queue.Await(atOnce, payloads), PayloadQueue::Head::Nothing);
  ASSERT_TRUE(queue.Put(std::string_view("one"), atOnce));
  EXPECT_FALSE(queue.Put(tooLong, atOnce));
  ASSERT_TRUE(queue.Put(std::string_view("two"), atOnce));
  EXPECT_EQ(queue.message_count(), 2u);
  ASSERT_EQ(queue.Await(atOnce, payloads), PayloadQueue::Head::Payloads);
  EXPECT_EQ(std::string(payloads.m_bytes.begin(), payloads.m_bytes.end()), "onetwo");
}

}  // namespace
}  // namespace sorvex::test
