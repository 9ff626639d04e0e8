// The module's component: start, mode, parameters, connections, end.
#include "FakeComponentFactory.h"
#include "InstallationDirectory.h"

#include "connection/ConfigServerConnection.h"
#include "connection/NullConfigServerConnection.h"
#include "connection/SSLConfigServerConnection.h"
#include "factory/ConnectionFactory.h"
#include "support/RecordingLogger.h"

#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>
#include <host/ServiceLookup.h>
#include <host/SystemError.h>
#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <thread>

namespace {

using sorvex::test::FakeComponentFactory;
using sorvex::test::InstallationDirectory;
using sorvex::test::Logged;
using sorvex::test::RecordingLogger;
using testing::ElementsAre;
using testing::IsEmpty;
using VaroCommunicationAPI::ConnectionFactory;
using WindowsAgentCommon::IConfigurationServerConnection;
using WindowsAgentCommon::ServiceConfig;

constexpr const char* standAloneLine =
    "Info No configuration server was specified in the install parameters; operating in 'stand-alone' mode "
    "(configuration updates must be manually applied).";
constexpr const char* directLine = "Debug Config server connection configured for ssl direct protocol.";
constexpr const char* httpsLine = "Debug Forcing config server connection to legacy https protocol.";

constexpr const char* serverInstallFile = "ConfigurationServer=server.example\r\nConfigurationServerPort=8413\r\n";
constexpr const char* httpsInstallFile =
    "ConfigurationServer=server.example\r\nForceHTTPSConfigServerConnection=true\r\n";

class FakeStatisticsServer : public ACE_Service_Object, public WindowsAgentCommon::IStatisticsServer {
 public:
  void Add(const std::string&, std::uint64_t) override {}
  std::uint64_t GetValue(const std::string&) const override { return 0; }
};

class FakeSecurityManager : public ACE_Service_Object, public WindowsAgentCommon::ISecurityManager {
 public:
  bool IsTlsReady() const override { return true; }
};

ACE_Service_Object* MakeStatisticsServer() { return new FakeStatisticsServer; }
ACE_Service_Object* MakeSecurityManager() { return new FakeSecurityManager; }

class ConnectionFactoryTest : public testing::Test {
 protected:
  int Initialize() { return m_factory.Initialize(m_config); }

  /// The component's own log lines.
  std::vector<std::string> Lines() const { return m_log->Lines("Code.ConnectionFactory"); }

  static std::string Utf8(const std::wstring& path) { return WindowsAgentCommon::WideToUtf8(path); }

  /// The log when the install file at `path` is missing.
  static std::string MissingInstallFileLine(const std::string& path) {
    return "Warn There was a problem when parsing the install configuration in " + Logged(path) +
           " (Reason: Couldn't find the application install parameters (in file " + Logged(path) +
           ") - we need these parameters. Reason: " + WindowsAgentCommon::GetLastErrorText(ENOENT) + ").";
  }
  static std::string MissingAutoCreationFileLine(const std::string& path) {
    return "Info Couldn't find the log source auto-creation parameters (in file " + Logged(path) +
           ") - now assuming there are none.";
  }

  std::string Parameter(const std::string& name) const {
    std::string value = "(untouched)";
    return m_factory.GetParameter(name, value) ? value : "(none)" + value;
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  std::optional<FakeComponentFactory> m_host{std::in_place};
  ServiceConfig m_config{"CommunicationAPI",    "Communication",           "Network module",
                         "CommunicationAPI.so", "_make_ConnectionFactory", {}};
  ConnectionFactory m_factory;
};

TEST_F(ConnectionFactoryTest, VersionIs725) { EXPECT_EQ(m_factory.GetVersion(), "7.2.5"); }

TEST_F(ConnectionFactoryTest, IsNotInitializedWhenNew) { EXPECT_FALSE(m_factory.IsInitialized()); }

TEST_F(ConnectionFactoryTest, IsNotInStandAloneModeWhenNew) { EXPECT_FALSE(m_factory.IsStandAloneMode()); }

TEST_F(ConnectionFactoryTest, HasNoParametersWhenNew) { EXPECT_EQ(Parameter("ConfigurationServer"), "(none)"); }

TEST_F(ConnectionFactoryTest, NeverAsksForRestart) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  EXPECT_FALSE(m_factory.IsRestartRequested());
}

TEST_F(ConnectionFactoryTest, InitializeFailsWithoutComponentFactory) {
  m_host.reset();
  m_installation.WriteInstallFile(serverInstallFile);
  EXPECT_EQ(Initialize(), 3);
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectionFactoryTest, InitializeWithoutComponentFactoryStoresNoConfiguration) {
  m_host.reset();
  Initialize();
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "");
}

TEST_F(ConnectionFactoryTest, InitializeIsReadyWithOneEntryOfAnyKey) {
  m_installation.WriteInstallFile("Anything=");
  EXPECT_EQ(Initialize(), 1);
  EXPECT_TRUE(m_factory.IsInitialized());
}

TEST_F(ConnectionFactoryTest, InitializeAsksForStatisticsServerThenForSecurityManager) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_host->Offer("IStatisticsServer", MakeStatisticsServer);
  m_host->Offer("ISecurityManager", MakeSecurityManager);
  EXPECT_EQ(Initialize(), 1);
  EXPECT_THAT(m_host->Calls(), ElementsAre("IsServiceRegistered IStatisticsServer", "LoadService IStatisticsServer",
                                           "IsServiceRegistered ISecurityManager", "LoadService ISecurityManager"));
}

TEST_F(ConnectionFactoryTest, InitializeLoadsNoServiceThatIsNotRegistered) {
  m_installation.WriteInstallFile(serverInstallFile);
  EXPECT_EQ(Initialize(), 1);
  EXPECT_THAT(m_host->Calls(),
              ElementsAre("IsServiceRegistered IStatisticsServer", "IsServiceRegistered ISecurityManager"));
}

TEST_F(ConnectionFactoryTest, InitializeEndsAtStatisticsServerThatCannotBeLoaded) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_host->OfferBroken("IStatisticsServer");
  m_host->Offer("ISecurityManager", MakeSecurityManager);
  EXPECT_EQ(Initialize(), 2);
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_THAT(m_host->Calls(), ElementsAre("IsServiceRegistered IStatisticsServer", "LoadService IStatisticsServer"));
}

TEST_F(ConnectionFactoryTest, InitializeEndsAtSecurityManagerThatCannotBeLoaded) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_host->OfferBroken("ISecurityManager");
  EXPECT_EQ(Initialize(), 2);
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "");
  EXPECT_EQ(Parameter("ConfigurationServer"), "(none)");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectionFactoryTest, InitializeRefusesServiceThatIsLoadedNowhere) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_host->OfferMissing("IStatisticsServer");
  EXPECT_EQ(Initialize(), 2);
}

TEST_F(ConnectionFactoryTest, InitializeSucceedsAfterDependencyWasMissing) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_host->OfferBroken("IStatisticsServer");
  ASSERT_EQ(Initialize(), 2);
  m_host->Offer("IStatisticsServer", MakeStatisticsServer);
  EXPECT_EQ(Initialize(), 1);
}

TEST_F(ConnectionFactoryTest, SecondInitializeIsReadyAtOnce) {
  m_installation.WriteInstallFile(serverInstallFile);
  ASSERT_EQ(Initialize(), 1);
  m_log->Clear();
  m_installation.WriteInstallFile("ConfigurationServer=another.example");
  ServiceConfig other = m_config;
  other.m_strName = "Other";
  EXPECT_EQ(m_factory.Initialize(other), 1);
  EXPECT_EQ(Parameter("ConfigurationServer"), "server.example");
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "CommunicationAPI");
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(m_host->Calls().size(), 2U);
}

TEST_F(ConnectionFactoryTest, SecondInitializeNeedsNoComponentFactory) {
  m_installation.WriteInstallFile(serverInstallFile);
  ASSERT_EQ(Initialize(), 1);
  m_host.reset();
  EXPECT_EQ(Initialize(), 1);
}

TEST_F(ConnectionFactoryTest, GivesTheFiveTextsOfItsConfiguration) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "CommunicationAPI");
  EXPECT_EQ(m_factory.GetServiceConfigText2(), "Communication");
  EXPECT_EQ(m_factory.GetServiceConfigText3(), "Network module");
  EXPECT_EQ(m_factory.GetServiceConfigText4(), "CommunicationAPI.so");
  EXPECT_EQ(m_factory.GetServiceConfigText5(), "_make_ConnectionFactory");
}

TEST_F(ConnectionFactoryTest, KeepsCopyOfItsConfiguration) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  m_config.m_strName = "changed";
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "CommunicationAPI");
}

TEST_F(ConnectionFactoryTest, StoresConfigurationAlsoWhenInstallationIsEmpty) {
  ASSERT_EQ(Initialize(), 3);
  EXPECT_EQ(m_factory.GetServiceConfigText1(), "CommunicationAPI");
}

TEST_F(ConnectionFactoryTest, MissingInstallFileIsWarnedOfAndFailsWithoutOtherEntries) {
  EXPECT_EQ(Initialize(), 3);
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_THAT(Lines(), ElementsAre(MissingInstallFileLine(Utf8(InstallationDirectory::InstallFile()))));
}

TEST_F(ConnectionFactoryTest, InstallFileWithoutEntriesFailsSilently) {
  m_installation.WriteInstallFile("nothing here\r\n");
  EXPECT_EQ(Initialize(), 3);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectionFactoryTest, AutoCreationFileAloneIsNotEnough) {
  m_installation.WriteInstallFile("");
  m_installation.WriteAutoCreationFile(u"AutoCreation.A=1");
  EXPECT_EQ(Initialize(), 3);
  EXPECT_EQ(Parameter("AutoCreation.A"), "(none)");
}

TEST_F(ConnectionFactoryTest, ManifestAloneIsEnough) {
  m_installation.WriteManifest("AgentCore.manifest", "Build Number: 4711");
  EXPECT_EQ(Initialize(), 1);
  EXPECT_EQ(Parameter("BuildNumber_AgentCore"), "4711");
  EXPECT_TRUE(m_factory.IsStandAloneMode());
}

TEST_F(ConnectionFactoryTest, MarkerAloneIsEnough) {
  m_installation.WriteMarker();
  EXPECT_EQ(Initialize(), 1);
  EXPECT_EQ(Parameter("ForceDeploy"), "True");
}

TEST_F(ConnectionFactoryTest, LogsProblemsThenModeInOrder) {
  m_installation.WriteMarker();
  Initialize();
  EXPECT_THAT(Lines(), ElementsAre(MissingInstallFileLine(Utf8(InstallationDirectory::InstallFile())),
                                   MissingAutoCreationFileLine(Utf8(InstallationDirectory::AutoCreationFile())),
                                   standAloneLine));
}

TEST_F(ConnectionFactoryTest, ReadsInstallationFromPathsOfHostParameters) {
  const std::string root = Utf8(WindowsAgentCommon::PathToWide(m_installation.Root()));
  m_installation.Write("answers.txt", "ConfigurationServer=server.example");
  m_installation.Write("sources.txt", sorvex::test::Utf16Bytes(u"AutoCreation.A=1"));
  m_installation.Write("AgentCore.manifest", "Build Number: 4711");
  m_config.m_parameters = {{"InstallConfigurationFile", root + "/answers.txt"},
                           {"InstallConfigurationLogSourceAutoCreateFile", root + "/sources.txt"}};
  EXPECT_EQ(Initialize(), 1);
  EXPECT_EQ(Parameter("ConfigurationServer"), "server.example");
  EXPECT_EQ(Parameter("AutoCreation.A"), "1");
  EXPECT_EQ(Parameter("BuildNumber_AgentCore"), "4711");
}

TEST_F(ConnectionFactoryTest, NamesPathOfHostParameterInWarning) {
  const std::string path = Utf8(WindowsAgentCommon::PathToWide(m_installation.Root())) + "/answers.txt";
  m_config.m_parameters = {{"InstallConfigurationFile", path}};
  EXPECT_EQ(Initialize(), 3);
  EXPECT_THAT(Lines(), ElementsAre(MissingInstallFileLine(path)));
}

TEST_F(ConnectionFactoryTest, TakesNothingElseFromHostParameters) {
  m_installation.WriteInstallFile("A=1");
  m_config.m_parameters = {{"ConfigurationServer", "server.example"}, {"B", "2"}};
  Initialize();
  EXPECT_EQ(Parameter("B"), "(none)");
  EXPECT_EQ(Parameter("ConfigurationServer"), "(none)");
  EXPECT_TRUE(m_factory.IsStandAloneMode());
}

TEST_F(ConnectionFactoryTest, HostParametersAloneAreNotEnough) {
  m_config.m_parameters = {{"ConfigurationServer", "server.example"}};
  EXPECT_EQ(Initialize(), 3);
}

TEST_F(ConnectionFactoryTest, PathsAreNotTakenFromInstallFile) {
  m_installation.WriteInstallFile("A=1\nInstallConfigurationLogSourceAutoCreateFile=elsewhere\n");
  m_installation.WriteAutoCreationFile(u"AutoCreation.A=1");
  Initialize();
  EXPECT_EQ(Parameter("AutoCreation.A"), "1");
}

TEST_F(ConnectionFactoryTest, GivesParameterOfInstallation) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  EXPECT_EQ(Parameter("ConfigurationServerPort"), "8413");
}

TEST_F(ConnectionFactoryTest, GivesEmptyTextForUnknownParameter) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  EXPECT_EQ(Parameter("BuildNumber_Unknown"), "(none)");
}

TEST_F(ConnectionFactoryTest, FindsEmptyParameter) {
  m_installation.WriteInstallFile("A=");
  Initialize();
  EXPECT_EQ(Parameter("A"), "");
}

TEST_F(ConnectionFactoryTest, GivesFirstOfTwoEntries) {
  m_installation.WriteInstallFile("A=1\nA=2");
  Initialize();
  EXPECT_EQ(Parameter("A"), "1");
}

TEST_F(ConnectionFactoryTest, WithoutServerIsInStandAloneMode) {
  m_installation.WriteInstallFile("A=1");
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_TRUE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(standAloneLine));
}

TEST_F(ConnectionFactoryTest, WithEmptyServerIsInStandAloneMode) {
  m_installation.WriteInstallFile("ConfigurationServer=\r\n");
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_TRUE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(standAloneLine));
}

TEST_F(ConnectionFactoryTest, StandAloneModeWinsOverHttps) {
  m_installation.WriteInstallFile("ForceHTTPSConfigServerConnection=true\r\n");
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_TRUE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(standAloneLine));
}

TEST_F(ConnectionFactoryTest, WithServerUsesDirectProtocol) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_FALSE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(directLine));
}

TEST_F(ConnectionFactoryTest, WithServerAndForcedHttpsUsesHttps) {
  m_installation.WriteInstallFile(httpsInstallFile);
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_FALSE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(httpsLine));
}

TEST_F(ConnectionFactoryTest, WithHttpsForcedToFalseUsesDirectProtocol) {
  m_installation.WriteInstallFile("ConfigurationServer=s\nForceHTTPSConfigServerConnection=false\n");
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_THAT(Lines(), ElementsAre(directLine));
}

TEST_F(ConnectionFactoryTest, WithUnreadableHttpsSettingUsesDirectProtocol) {
  m_installation.WriteInstallFile("ConfigurationServer=s\nForceHTTPSConfigServerConnection=maybe\n");
  m_installation.WriteAutoCreationFile(u"");
  Initialize();
  EXPECT_THAT(Lines(), ElementsAre(directLine));
}

TEST_F(ConnectionFactoryTest, ServerFromAutoCreationFileDoesNotCount) {
  m_installation.WriteInstallFile("A=1");
  m_installation.WriteAutoCreationFile(u"ConfigurationServer=server.example");
  Initialize();
  EXPECT_TRUE(m_factory.IsStandAloneMode());
}

TEST_F(ConnectionFactoryTest, BehavesAsStandAloneWhileDeploymentIsForced) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteAutoCreationFile(u"");
  m_installation.WriteMarker();
  Initialize();
  EXPECT_TRUE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(directLine));
}

TEST_F(ConnectionFactoryTest, WithoutMarkerHasNoForceDeployParameter) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  EXPECT_EQ(Parameter("ForceDeploy"), "(none)");
}

TEST_F(ConnectionFactoryTest, StillMakesServerConnectionWhileDeploymentIsForced) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteMarker();
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(dynamic_cast<VaroCommunicationAPI::SSLConfigServerConnection*>(connection.get()), nullptr);
}

TEST_F(ConnectionFactoryTest, MakesStandAloneConnection) {
  m_installation.WriteInstallFile("A=1");
  Initialize();
  m_log->Clear();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(dynamic_cast<VaroCommunicationAPI::NullConfigServerConnection*>(connection.get()), nullptr);
  EXPECT_THAT(Lines(), ElementsAre("Debug creating stand alone mode config server connection"));
}

TEST_F(ConnectionFactoryTest, MakesHttpsConnection) {
  m_installation.WriteInstallFile(httpsInstallFile);
  Initialize();
  m_log->Clear();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(dynamic_cast<VaroCommunicationAPI::ConfigServerConnection*>(connection.get()), nullptr);
  EXPECT_THAT(Lines(), ElementsAre("Debug creating config server connection"));
}

TEST_F(ConnectionFactoryTest, MakesDirectTlsConnection) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  m_log->Clear();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(dynamic_cast<VaroCommunicationAPI::SSLConfigServerConnection*>(connection.get()), nullptr);
  EXPECT_THAT(Lines(), ElementsAre("Debug creating SSL config server connection"));
}

TEST_F(ConnectionFactoryTest, MakesNewConnectionInPlaceOfTheOldOne) {
  m_installation.WriteInstallFile("A=1");
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  const std::weak_ptr<IConfigurationServerConnection> first = connection;
  const IConfigurationServerConnection* const firstAddress = connection.get();
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(connection.get(), firstAddress);
  EXPECT_TRUE(first.expired());
}

TEST_F(ConnectionFactoryTest, KeepsNoConnectionItself) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_EQ(connection.use_count(), 1);
}

/// Counts how often it is closed.
class FakeConnection : public VaroCommunicationAPI::NullConfigServerConnection {
 public:
  explicit FakeConnection(int& closed) : m_closed(closed) {}
  void Disconnect() override { ++m_closed; }

 private:
  int& m_closed;
};

TEST_F(ConnectionFactoryTest, ReleaseOfNothingDoesNothing) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(connection, nullptr);
}

TEST_F(ConnectionFactoryTest, ReleaseInStandAloneModeOnlyResets) {
  m_installation.WriteInstallFile("A=1");
  Initialize();
  int closed = 0;
  std::shared_ptr<IConfigurationServerConnection> connection = std::make_shared<FakeConnection>(closed);
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(connection, nullptr);
  EXPECT_EQ(closed, 0);
}

TEST_F(ConnectionFactoryTest, ReleaseClosesDirectTlsConnectionOnce) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  int closed = 0;
  std::shared_ptr<IConfigurationServerConnection> connection = std::make_shared<FakeConnection>(closed);
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(connection, nullptr);
  EXPECT_EQ(closed, 1);
}

TEST_F(ConnectionFactoryTest, ReleaseClosesHttpsConnectionOnce) {
  m_installation.WriteInstallFile(httpsInstallFile);
  Initialize();
  int closed = 0;
  std::shared_ptr<IConfigurationServerConnection> connection = std::make_shared<FakeConnection>(closed);
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(closed, 1);
}

TEST_F(ConnectionFactoryTest, ReleaseClosesServerConnectionWhileDeploymentIsForced) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteMarker();
  Initialize();
  int closed = 0;
  std::shared_ptr<IConfigurationServerConnection> connection = std::make_shared<FakeConnection>(closed);
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(closed, 1);
}

TEST_F(ConnectionFactoryTest, ReleaseLeavesConnectionToItsOtherOwners) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  const std::shared_ptr<IConfigurationServerConnection> other = connection;
  m_factory.ReleaseConfigServerConnection(connection);
  EXPECT_EQ(other.use_count(), 1);
}

TEST_F(ConnectionFactoryTest, ShutdownClearsInitialized) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  m_factory.Shutdown();
  EXPECT_FALSE(m_factory.IsInitialized());
}

TEST_F(ConnectionFactoryTest, ShutdownDeletesMarker) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteMarker();
  Initialize();
  m_log->Clear();
  m_factory.Shutdown();
  EXPECT_FALSE(std::filesystem::exists(m_installation.Marker()));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectionFactoryTest, ShutdownKeepsMarkerWhileArchiveWaits) {
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteMarker();
  m_installation.Write("patch/AgentCore.tar.gz", "");
  Initialize();
  m_log->Clear();
  m_factory.Shutdown();
  EXPECT_TRUE(std::filesystem::exists(m_installation.Marker()));
  EXPECT_FALSE(m_factory.IsInitialized());
  EXPECT_THAT(
      Lines(),
      ElementsAre("Debug There are patch files in the patch directory; leaving the force.deploy file in place so "
                  "that the next restart attempts to deploy them again."));
}

TEST_F(ConnectionFactoryTest, ShutdownTidiesMarkerAlsoWithoutInitialize) {
  m_installation.WriteMarker();
  m_factory.Shutdown();
  EXPECT_FALSE(std::filesystem::exists(m_installation.Marker()));
}

TEST_F(ConnectionFactoryTest, ShutdownTwiceIsHarmless) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  m_factory.Shutdown();
  m_factory.Shutdown();
  EXPECT_FALSE(m_factory.IsInitialized());
}

TEST_F(ConnectionFactoryTest, InitializedAnewAfterShutdownKeepsNoOldParameters) {
  m_installation.WriteInstallFile("ConfigurationServer=old.example\nOld=1\nForceHTTPSConfigServerConnection=true\n");
  m_installation.WriteMarker();
  Initialize();
  m_factory.Shutdown();
  m_installation.WriteInstallFile("ConfigurationServer=new.example\n");
  EXPECT_EQ(Initialize(), 1);
  EXPECT_EQ(Parameter("ConfigurationServer"), "new.example");
  EXPECT_EQ(Parameter("Old"), "(none)");
  EXPECT_EQ(Parameter("ForceDeploy"), "(none)");
}

TEST_F(ConnectionFactoryTest, InitializedAnewAfterShutdownKeepsNoOldMode) {
  m_installation.WriteInstallFile(httpsInstallFile);
  m_installation.WriteMarker();
  Initialize();
  m_factory.Shutdown();
  m_installation.WriteInstallFile(serverInstallFile);
  m_installation.WriteAutoCreationFile(u"");
  m_log->Clear();
  EXPECT_EQ(Initialize(), 1);
  EXPECT_FALSE(m_factory.IsStandAloneMode());
  EXPECT_THAT(Lines(), ElementsAre(directLine));
}

TEST_F(ConnectionFactoryTest, InitializedAnewInStandAloneModeMakesStandAloneConnection) {
  m_installation.WriteInstallFile(httpsInstallFile);
  Initialize();
  m_factory.Shutdown();
  m_installation.WriteInstallFile("A=1");
  Initialize();
  std::shared_ptr<IConfigurationServerConnection> connection;
  m_factory.CreateConfigServerConnection(connection);
  EXPECT_NE(dynamic_cast<VaroCommunicationAPI::NullConfigServerConnection*>(connection.get()), nullptr);
}

TEST_F(ConnectionFactoryTest, InitializeFailedAfterShutdownLeavesNoParameters) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  m_factory.Shutdown();
  std::filesystem::remove(m_installation.ConfigDirectory() / "install_config.txt");
  EXPECT_EQ(Initialize(), 3);
  EXPECT_EQ(Parameter("ConfigurationServer"), "(none)");
}

TEST_F(ConnectionFactoryTest, ServesSeveralThreadsAtOnce) {
  m_installation.WriteInstallFile(serverInstallFile);
  Initialize();
  std::vector<int> good(4);
  {
    std::vector<std::jthread> threads;
    for (int& count : good) {
      threads.emplace_back([this, &count] {
        for (int i = 0; i < 50; ++i) {
          std::shared_ptr<IConfigurationServerConnection> connection;
          m_factory.CreateConfigServerConnection(connection);
          std::string server;
          if (connection && m_factory.GetParameter("ConfigurationServer", server) && server == "server.example" &&
              !m_factory.IsStandAloneMode()) {
            ++count;
          }
          m_factory.ReleaseConfigServerConnection(connection);
        }
      });
    }
  }
  EXPECT_THAT(good, testing::Each(50));
}

}  // namespace
