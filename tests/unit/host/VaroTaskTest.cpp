#include <host/VaroTask.h>

#include <host/MessageBlock.h>

#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace WindowsAgentCommon {
namespace {

/// Takes blocks until a hang-up arrives.
class CountingTask : public VaroTask {
 public:
  int svc() override {
    ACE_Message_Block* block = nullptr;
    while (getq(block) != -1) {
      const bool last = block->msg_type() == ACE_Message_Block::MB_HANGUP;
      block->release();
      if (last) return 0;
      ++m_taken;
    }
    return -1;
  }

  std::atomic<int> m_taken = 0;
};

TEST(VaroTask, ServesItsQueueInAThread) {
  CountingTask task;
  ASSERT_EQ(task.activate(), 0);
  for (int i = 0; i < 3; ++i) ASSERT_NE(task.putq(CreateDataMessageBlock(1)), -1);
  ASSERT_NE(task.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  EXPECT_EQ(task.wait(), 0);
  EXPECT_EQ(task.m_taken, 3);
}

TEST(VaroTask, ClockIsMonotonic) {
  const VaroTask task;
  const ACE_Time_Value first = task.gettimeofday();
  const ACE_Time_Value second = task.gettimeofday();
  EXPECT_GE(second, first);
  // The wall clock is decades ahead of one that counts from the system's start.
  EXPECT_NE(first.sec() / 86400, ACE_OS::gettimeofday().sec() / 86400);
}

TEST(VaroTask, DeadlinesAreReachedOnTheMonotonicClock) {
  using namespace std::chrono;
  VaroTask task;
  const auto start = steady_clock::now();
  // The deadline's type says which clock it uses.
  auto deadline = task.gettimeofday();
  deadline += ACE_Time_Value(0, 50'000);
  ACE_Message_Block* block = nullptr;
  EXPECT_EQ(task.getq(block, &deadline), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  const auto waited = steady_clock::now() - start;
  EXPECT_GE(waited, 49ms);
  EXPECT_LT(waited, 30s);
}

}  // namespace
}  // namespace WindowsAgentCommon
