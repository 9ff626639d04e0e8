// Files that are written whole or not at all.
#include "platform/AtomicFile.h"

#include "support/TemporaryDirectory.h"

#include <host/Text.h>

#include <gtest/gtest.h>

#include <filesystem>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::Platform::WriteFileAtomically;
using WindowsAgentCommon::PathToWide;

class AtomicFile : public testing::Test {
 protected:
  std::size_t Entries() const {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(m_directory.Path())) ++count;
    return count;
  }

  TemporaryDirectory m_directory{"Schl\xC3\xBCssel \xE9\x8D\xB5"};
  std::filesystem::path m_file = m_directory.Path() / "file";
};

TEST_F(AtomicFile, IsWrittenWithNothingBeside) {
  const std::string content("one\ntwo\0three\r\n", 15);
  EXPECT_EQ(WriteFileAtomically(PathToWide(m_file), content), 0);
  EXPECT_EQ(TemporaryDirectory::Read(m_file), content);
  EXPECT_EQ(Entries(), 1U);
}

TEST_F(AtomicFile, TakesTheNameAndLeavesTheFormerFileAsItWas) {
  m_directory.Write("file", "older");
  std::filesystem::create_hard_link(m_file, m_directory.Path() / "link");
  EXPECT_EQ(WriteFileAtomically(PathToWide(m_file), "new"), 0);
  EXPECT_EQ(TemporaryDirectory::Read(m_file), "new");
  EXPECT_EQ(TemporaryDirectory::Read(m_directory.Path() / "link"), "older");
}

TEST_F(AtomicFile, ThatCannotGetItsNameIsGone) {
  m_directory.Write("file/inside", "x");
  EXPECT_NE(WriteFileAtomically(PathToWide(m_file), "new"), 0);
  EXPECT_EQ(Entries(), 1U);
}

TEST_F(AtomicFile, InAnAbsentDirectoryIsAnError) {
  EXPECT_NE(WriteFileAtomically(PathToWide(m_directory.Path() / "absent" / "file"), "new"), 0);
  EXPECT_EQ(Entries(), 0U);
}

}  // namespace
}  // namespace sorvex::test
