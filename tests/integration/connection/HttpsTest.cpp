// The module's HTTPS connection, from the install file to the server.
#include "factory/ConnectionFactory.h"

#include "support/ConnectProxy.h"
#include "support/RecordingLogger.h"
#include "support/ScriptedHttpsServer.h"
#include "unit/module/FakeComponentFactory.h"
#include "unit/module/InstallationDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

namespace sorvex::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using WindowsAgentCommon::IConfigurationServerConnection;

class ModulesHttpsConnection : public testing::Test {
 protected:
  void Install(const std::string& lines = {}) {
    m_installation.WriteInstallFile(
        "ConfigurationServer=127.0.0.1\r\nConfigurationServerPort=" + std::to_string(m_server.Port()) +
        "\r\nApplicationIdentifier=agent\r\nApplicationToken=to-ken\r\n"
        "ForceHTTPSConfigServerConnection=true\r\n" +
        lines);
    m_installation.WriteAutoCreationFile(u"AutoCreation.Foo=a b\r\n");
    ASSERT_EQ(m_factory.Initialize({}), 1);
    m_factory.CreateConfigServerConnection(m_connection);
    ASSERT_TRUE(m_connection);
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  const FakeComponentFactory m_host;
  ScriptedHttpsServer m_server{std::vector{HttpAnswer("900150983cd24fb0d6963f7d28e17f72")}};
  ConnectProxy m_proxy{m_server.Port()};
  ScopedProxy m_environment{m_proxy.Port()};
  VaroCommunicationAPI::ConnectionFactory m_factory;
  std::shared_ptr<IConfigurationServerConnection> m_connection;
};

TEST_F(ModulesHttpsConnection, DoesAWholeRound) {
  Install();
  std::string md5;
  std::ostringstream output;
  bool bBlocked = true;
  EXPECT_TRUE(m_connection->Connect());
  EXPECT_TRUE(m_connection->RegisterInstance("Debian 12", "7.2.5"));
  EXPECT_TRUE(m_connection->TestConnection());
  EXPECT_TRUE(m_connection->PostHeartbeat());
  EXPECT_TRUE(m_connection->UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(time_t{99})));
  EXPECT_EQ(m_connection->GetConfigurationFingerprint(bBlocked), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_FALSE(bBlocked);
  EXPECT_TRUE(m_connection->RetrieveConfiguration(output, md5));
  EXPECT_TRUE(m_connection->RetrieveSoftwarePatch({"A", "B"}, output, md5));
  EXPECT_THAT(
      m_server.RequestLines(),
      ElementsAre("GET /console/sorvex?Name=RegisterInstance&Identifier=agent&OS+version=Debian%2012&Sorvex+version="
                  "7.2.5&AutoCreation.Foo=a%20b HTTP/1.1",
                  "GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1",
                  "GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1",
                  "GET /console/sorvex?Name=UpdateStatus&Identifier=agent&Status=1&Uptime=99 HTTP/1.1",
                  "GET /console/sorvex?Name=GetConfigurationFingerprint&Identifier=agent HTTP/1.1",
                  "GET /console/sorvex?Name=RetrieveConfiguration&Identifier=agent HTTP/1.1",
                  "GET /console/sorvex?Name=RetrieveSoftwarePatch&Identifier=agent&OutOfDateList="
                  "x64_72_A%2Cx64_72_B HTTP/1.1"));
  EXPECT_THAT(m_server.Requests(), Each(HasSubstr("\r\nSEC: to-ken\r\n")));
  // One fetches the certificate.
  EXPECT_EQ(m_server.Connections(), 2);
  EXPECT_TRUE(std::filesystem::exists(m_installation.ConfigDirectory() / "Console.PEM"));
  EXPECT_THAT(m_log->Lines(), Each(Not(HasSubstr("to-ken"))));
}

TEST_F(ModulesHttpsConnection, EndsWithItsRelease) {
  Install();
  EXPECT_TRUE(m_connection->PostHeartbeat());
  const std::shared_ptr<IConfigurationServerConnection> other = m_connection;
  m_factory.ReleaseConfigServerConnection(m_connection);
  EXPECT_FALSE(m_connection);
  EXPECT_TRUE(m_server.AllEnded());
  EXPECT_FALSE(other->PostHeartbeat());
}

TEST_F(ModulesHttpsConnection, IsClosedByItsKindWhateverTheModeIsNow) {
  Install();
  EXPECT_TRUE(m_connection->PostHeartbeat());
  m_factory.Shutdown();
  m_installation.WriteInstallFile("A=1");
  ASSERT_EQ(m_factory.Initialize({}), 1);
  ASSERT_TRUE(m_factory.IsStandAloneMode());
  const std::shared_ptr<IConfigurationServerConnection> other = m_connection;
  m_factory.ReleaseConfigServerConnection(m_connection);
  EXPECT_TRUE(m_server.AllEnded());
}

TEST_F(ModulesHttpsConnection, IsOneOfSeveral) {
  Install();
  EXPECT_TRUE(m_connection->PostHeartbeat());
  std::shared_ptr<IConfigurationServerConnection> second;
  m_factory.CreateConfigServerConnection(second);
  EXPECT_TRUE(second->PostHeartbeat());
  m_factory.ReleaseConfigServerConnection(m_connection);
  EXPECT_TRUE(second->PostHeartbeat());
  m_factory.ReleaseConfigServerConnection(second);
  EXPECT_TRUE(m_server.AllEnded());
  EXPECT_EQ(m_server.Connections(), 3);
}

}  // namespace
}  // namespace sorvex::test
