// A property that only Windows files have: sharing.
#include "InstallationDirectory.h"

#include "platform/Files.h"

#include <gtest/gtest.h>

#include <windows.h>

namespace {

using sorvex::test::InstallationDirectory;
using VaroCommunicationAPI::Platform::ReadFileHead;
using VaroCommunicationAPI::Platform::SecretText;

class SharedFile : public testing::Test {
 protected:
  ~SharedFile() override { CloseHandle(m_file); }

  /// Keeps the file open like another program that lets everybody share it.
  void Open(DWORD access) {
    m_file = CreateFileW(InstallationDirectory::InstallFile().c_str(), access,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(m_file, INVALID_HANDLE_VALUE);
  }
  int Read() { return ReadFileHead(InstallationDirectory::InstallFile(), 10, m_content); }

  InstallationDirectory m_installation;
  HANDLE m_file = INVALID_HANDLE_VALUE;
  SecretText m_content;
};

TEST_F(SharedFile, IsReadBesideAnotherReader) {
  m_installation.WriteInstallFile("A=1");
  Open(GENERIC_READ);
  EXPECT_EQ(Read(), 0);
  EXPECT_EQ(m_content.View(), "A=1");
}

TEST_F(SharedFile, IsNotReadBesideAWriter) {
  m_installation.WriteInstallFile("A=1");
  Open(GENERIC_WRITE);
  EXPECT_EQ(Read(), ERROR_SHARING_VIOLATION);
  EXPECT_EQ(m_content.View(), "");
}

}  // namespace
