#include <DeliveredFile.h>
#include <platform/Platform.h>

#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace sorvex {
namespace {

/// How many more parts are written before the program is asked to end; none if it never is.
std::optional<int> partsLeft;

}  // namespace

namespace agent {

bool IsInterrupted() { return partsLeft && (*partsLeft)-- <= 0; }

}  // namespace agent

namespace test {
namespace {

using agent::DeliveredFile;

class DeliveredFileTest : public testing::Test {
 protected:
  std::string Content() const { return TemporaryDirectory::Read(m_path); }

  TemporaryDirectory m_directory;
  const std::filesystem::path m_path = m_directory.Write("file", "old");
};

TEST_F(DeliveredFileTest, TakesAsMuchAsItsLimit) {
  DeliveredFile file(m_path, 10);
  file.Stream() << "01234"
                << "56789";
  EXPECT_TRUE(file.Stream().good());
  EXPECT_EQ(file.WriteError(), "");
  file.Finish();
  EXPECT_EQ(file.GetDigest(), "781e5e245d69b566979b86e28d23f2c7");
  file.Keep();
  EXPECT_EQ(Content(), "0123456789");
}

TEST_F(DeliveredFileTest, RefusesWhatComesAfterItsLimit) {
  {
    DeliveredFile file(m_path, 10);
    file.Stream() << "0123456789"
                  << "x";
    EXPECT_FALSE(file.Stream().good());
    EXPECT_EQ(file.Size(), 10U);
    EXPECT_THAT(file.WriteError(), testing::StartsWith("more than 10 bytes: "));
    file.Stream().clear();
    // Nothing more goes into a file that lacks something.
    file.Stream() << "y";
    EXPECT_FALSE(file.Stream().good());
    EXPECT_THROW(file.Finish(), std::system_error);
  }
  EXPECT_EQ(Content(), "old");
}

TEST_F(DeliveredFileTest, StaysFailedAfterAWriteThatFailed) {
  DeliveredFile file(m_path, 10);
  file.Stream() << "012345678"
                << "xx";
  EXPECT_FALSE(file.Stream().good());
  file.Stream().clear();
  // It would fit.
  file.Stream() << "y";
  EXPECT_FALSE(file.Stream().good());
  EXPECT_EQ(file.Size(), 9U);
  // The writer may ignore that.
  file.Stream().clear();
  try {
    file.Finish();
    ADD_FAILURE() << "a file that lacks something was finished";
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), testing::StartsWith("more than 10 bytes: "));
  }
}

TEST_F(DeliveredFileTest, TakesSingleBytesAsItTakesBlocks) {
  DeliveredFile file(m_path, 2);
  file.Stream().put('a').put('\xFF');
  EXPECT_TRUE(file.Stream().good());
  file.Stream().put('b');
  EXPECT_FALSE(file.Stream().good());
  EXPECT_EQ(file.Size(), 2U);
  EXPECT_EQ(file.Begin(), "a\xFF");
}

TEST_F(DeliveredFileTest, ShowsItsFirst1024Bytes) {
  DeliveredFile file(m_path);
  file.Stream() << std::string(1000, 'a') << std::string(100, 'b') << "c";
  EXPECT_EQ(file.Begin(), std::string(1000, 'a') + std::string(24, 'b'));
  EXPECT_EQ(file.Size(), 1101U);
}

TEST_F(DeliveredFileTest, EndsALongWriteWhenTheProgramIsAskedToEnd) {
  DeliveredFile file(m_path);
  partsLeft = 1;
  file.Stream() << std::string(0x300000, 'x');
  partsLeft.reset();
  EXPECT_FALSE(file.Stream().good());
  EXPECT_EQ(file.Size(), 0x100000U);
}

TEST_F(DeliveredFileTest, IsOneGibibyteAtMost) { EXPECT_EQ(DeliveredFile::maxBytes, 1073741824U); }

TEST(DeliveredDigest, IsEqualToNoneWhenItIsEmpty) {
  EXPECT_TRUE(agent::AreSameDigest("5D41", "5d41"));
  EXPECT_FALSE(agent::AreSameDigest("5d41", "5d42"));
  EXPECT_FALSE(agent::AreSameDigest("", ""));
}

TEST_F(DeliveredFileTest, RefusesEverythingOnceTheProgramIsAskedToEnd) {
  {
    DeliveredFile file(m_path);
    file.Stream() << "new";
    partsLeft = 0;
    file.Stream() << "er";
    partsLeft.reset();
    EXPECT_EQ(file.Size(), 3U);
    EXPECT_EQ(file.WriteError(), "");
    EXPECT_THROW(file.Finish(), std::system_error);
  }
  EXPECT_EQ(Content(), "old");
}

}  // namespace
}  // namespace test
}  // namespace sorvex
