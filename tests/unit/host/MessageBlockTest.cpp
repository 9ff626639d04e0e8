#include <host/MessageBlock.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

namespace WindowsAgentCommon {
namespace {

TEST(MessageBlock, IsAnEmptyDataBlockWithRoom) {
  ACE_Message_Block* block = CreateDataMessageBlock(100);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->msg_type(), ACE_Message_Block::MB_DATA);
  EXPECT_EQ(block->length(), 0U);
  EXPECT_EQ(block->space(), 100U);
  EXPECT_EQ(block->cont(), nullptr);
  block->release();
}

TEST(MessageBlock, TakesAsManyBytesAsAskedFor) {
  ACE_Message_Block* block = CreateDataMessageBlock(5);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->copy("hello", 5), 0);
  EXPECT_EQ(block->copy("!", 1), -1);
  EXPECT_EQ(std::string(block->rd_ptr(), block->length()), "hello");
  block->release();
}

TEST(MessageBlock, MayHaveNoRoom) {
  ACE_Message_Block* block = CreateDataMessageBlock(0);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->space(), 0U);
  block->release();
}

TEST(MessageBlock, IsNullWithoutMemory) {
  EXPECT_EQ(CreateDataMessageBlock(SIZE_MAX / 2), nullptr);
  // Together with what belongs to it, more than a number can hold.
  EXPECT_EQ(CreateDataMessageBlock(SIZE_MAX), nullptr);
}

TEST(MessageBlock, DuplicateOutlivesTheOriginal) {
  ACE_Message_Block* block = CreateDataMessageBlock(5);
  ASSERT_NE(block, nullptr);
  block->copy("hello", 5);
  ACE_Message_Block* duplicate = block->duplicate();
  block->release();
  EXPECT_EQ(std::string(duplicate->rd_ptr(), duplicate->length()), "hello");
  duplicate->release();
}

TEST(MessageBlock, CloneIsIndependent) {
  ACE_Message_Block* block = CreateDataMessageBlock(5);
  ASSERT_NE(block, nullptr);
  block->copy("hello", 5);
  ACE_Message_Block* clone = block->clone();
  std::memcpy(block->base(), "HELLO", 5);
  block->release();
  EXPECT_EQ(std::string(clone->rd_ptr(), clone->length()), "hello");
  clone->release();
}

TEST(MessageBlock, CanGrow) {
  ACE_Message_Block* block = CreateDataMessageBlock(5);
  ASSERT_NE(block, nullptr);
  block->copy("hello", 5);
  ASSERT_EQ(block->size(1000), 0);
  EXPECT_EQ(block->copy(std::string(900, 'x').c_str(), 900), 0);
  EXPECT_EQ(std::string(block->rd_ptr(), 6), "hellox");
  block->release();
}

TEST(MessageBlock, IsReleasedInAnotherThread) {
  ACE_Message_Block* block = CreateDataMessageBlock(16);
  ASSERT_NE(block, nullptr);
  block->copy("text", 4);
  std::string seen;
  std::thread([block, &seen] {
    seen.assign(block->rd_ptr(), block->length());
    block->release();
  }).join();
  EXPECT_EQ(seen, "text");
}

}  // namespace
}  // namespace WindowsAgentCommon
