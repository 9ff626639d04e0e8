#include <DeliveredFile.h>
#include <platform/Platform.h>

#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace sorvex {
namespace {

bool isInterrupted = false;

}  // namespace

namespace agent {

bool IsInterrupted() { return isInterrupted; }

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

TEST_F(DeliveredFileTest, RefusesEverythingOnceTheProgramIsAskedToEnd) {
  {
    DeliveredFile file(m_path);
    file.Stream() << "new";
    isInterrupted = true;
    file.Stream() << "er";
    isInterrupted = false;
    EXPECT_EQ(file.Size(), 3U);
    EXPECT_EQ(file.WriteError(), "");
    EXPECT_THROW(file.Finish(), std::system_error);
  }
  EXPECT_EQ(Content(), "old");
}

}  // namespace
}  // namespace test
}  // namespace sorvex
