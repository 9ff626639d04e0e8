// A secured application token on its way through the component.
#include "ApplicationKey.h"
#include "FakeComponentFactory.h"
#include "InstallationDirectory.h"

#include "factory/ConnectionFactory.h"
#include "platform/KeyContainer.h"
#include "support/RecordingLogger.h"

#include <host/SystemError.h>
#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace {

using sorvex::test::ApplicationKey;
using sorvex::test::InstallationDirectory;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* plainToken = "01234567-89ab-cdef-0123-456789abcdef";

class SecuredToken : public testing::TestWithParam<unsigned int> {
 protected:
  const ApplicationKey& Key() const { return ApplicationKey::Of(GetParam()); }

  std::string InitializeAndGetToken() {
    m_installation.WriteInstallFile("ConfigurationServer=server.example\r\nApplicationToken=" + m_secured + "\r\n");
    EXPECT_EQ(m_factory.Initialize({}), 1);
    std::string token;
    m_factory.GetParameter("ApplicationToken", token);
    return token;
  }

  static std::string Warning(int error) {
    const std::string path = WindowsAgentCommon::WideToUtf8(InstallationDirectory::InstallFile());
    return "Warn There was a problem when parsing the install configuration in " + path +
           " (Reason: Couldn't decode the secure application token provided in " + path + " (" +
           WindowsAgentCommon::GetLastErrorText(error) +
           "). Proceeding as if it is ok, but the config server may have something to say about it later...).";
  }

  InstallationDirectory m_installation;
  sorvex::test::RecordingLogger m_log;
  sorvex::test::FakeComponentFactory m_host;
  VaroCommunicationAPI::ConnectionFactory m_factory;
  std::string m_secured = Key().Secure(plainToken);
};

TEST_P(SecuredToken, IsGivenAsPlainText) {
  StoreInContainer(Key());
  EXPECT_EQ(InitializeAndGetToken(), plainToken);
}

TEST_P(SecuredToken, IsNeverLogged) {
  StoreInContainer(Key());
  InitializeAndGetToken();
  EXPECT_THAT(m_log->Lines(), AllOf(Not(IsEmpty()), Each(Not(HasSubstr(plainToken)))));
  EXPECT_THAT(m_log->Lines(), Each(Not(HasSubstr(m_secured))));
}

TEST_P(SecuredToken, WithoutKeyIsWarnedOfAndKept) {
  EXPECT_EQ(InitializeAndGetToken(), m_secured);
  EXPECT_THAT(m_log->Lines("Code.ConnectionFactory"), Contains(testing::StartsWith("Warn ")).Times(1));
}

TEST_P(SecuredToken, WithoutKeyIsNeverLogged) {
  InitializeAndGetToken();
  EXPECT_THAT(m_log->Lines(), AllOf(Not(IsEmpty()), Each(Not(HasSubstr(m_secured)))));
}

TEST_P(SecuredToken, WithoutKeyStillReachesMode) {
  InitializeAndGetToken();
  EXPECT_FALSE(m_factory.IsStandAloneMode());
}

#ifndef _WIN32
TEST_P(SecuredToken, WithKeyThatGroupCanReadIsWarnedOfAndKept) {
  StoreInContainer(Key());
  std::filesystem::permissions(m_installation.ConfigDirectory() / "keys/Sorvex.ConfigServerConnection.pem",
                               std::filesystem::perms::group_read, std::filesystem::perm_options::add);
  EXPECT_EQ(InitializeAndGetToken(), m_secured);
  EXPECT_THAT(m_log->Lines("Code.ConnectionFactory"), Contains(Warning(EPERM)).Times(1));
}

TEST_P(SecuredToken, WithoutKeyIsWarnedOfWithExactText) {
  InitializeAndGetToken();
  EXPECT_THAT(m_log->Lines("Code.ConnectionFactory"), Contains(Warning(ENOENT)).Times(1));
}
#endif

INSTANTIATE_TEST_SUITE_P(KeySizes, SecuredToken, testing::Values(1024U, 2048U));

}  // namespace
