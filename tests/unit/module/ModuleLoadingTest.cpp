// The built module, as the agent's host loads it.
#include "InstallationDirectory.h"

#include "support/RecordingLogger.h"

#include <SorvexHost/ComponentFactory.h>
#include <host/IConnectionFactory.h>
#include <host/IStatisticsServer.h>
#include <host/ServiceLookup.h>

#include <ace/DLL.h>
#include <ace/DLL_Manager.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using sorvex::test::InstallationDirectory;
using sorvex::test::RecordingLogger;
using WindowsAgentCommon::ComponentFactory;
using WindowsAgentCommon::GetService;
using WindowsAgentCommon::IConnectionFactory;

constexpr const char* serviceName = "IConnectionFactory";

/// Makes a library leave the process with its last user; by default the library manager keeps it until the end.
class EagerUnloading {
 public:
  EagerUnloading() { Manager().unload_policy(ACE_DLL_UNLOAD_POLICY_PER_PROCESS); }
  ~EagerUnloading() { Manager().unload_policy(m_previous); }
  EagerUnloading(const EagerUnloading&) = delete;
  EagerUnloading& operator=(const EagerUnloading&) = delete;

 private:
  static ACE_DLL_Manager& Manager() { return *ACE_DLL_Manager::instance(); }

  u_long m_previous = Manager().unload_policy();
};

class ModuleLoading : public testing::Test {
 protected:
  ModuleLoading() {
    m_host.Install();
    m_host.RegisterService(serviceName, COMMUNICATION_API_MODULE, "ConnectionFactory");
    m_installation.WriteInstallFile("ConfigurationServer=server.example\r\n");
  }

  EagerUnloading m_eagerUnloading;
  InstallationDirectory m_installation;
  RecordingLogger m_log;
  ComponentFactory m_host;
};

TEST_F(ModuleLoading, GivesConnectionFactory) {
  EXPECT_EQ(GetService<IConnectionFactory>(), nullptr);
  ASSERT_TRUE(m_host.LoadService(serviceName)) << testing::PrintToString(m_log->Lines());
  IConnectionFactory* const factory = GetService<IConnectionFactory>();
  ASSERT_NE(factory, nullptr);
  EXPECT_EQ(factory->GetVersion(), "7.2.5");
}

TEST_F(ModuleLoading, IsUndoneByUnloading) {
  ASSERT_TRUE(m_host.LoadService(serviceName));
  m_host.UnloadService(serviceName);
  EXPECT_EQ(GetService<IConnectionFactory>(), nullptr);
}

TEST_F(ModuleLoading, WorksTwiceInARow) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(m_host.LoadService(serviceName));
    IConnectionFactory* const factory = GetService<IConnectionFactory>();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory->Initialize({}), 1);
    std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection> connection;
    factory->CreateConfigServerConnection(connection);
    EXPECT_NE(connection, nullptr);
    factory->ReleaseConfigServerConnection(connection);
    factory->Shutdown();
    m_host.UnloadService(serviceName);
  }
}

TEST_F(ModuleLoading, WithoutTheModuleFailsAndSaysSo) {
  m_host.RegisterService(serviceName, m_installation.Root() / "missing.so", "ConnectionFactory");
  EXPECT_FALSE(m_host.LoadService(serviceName));
  EXPECT_EQ(m_log->Lines("Code.ComponentFactory").size(), 1U);
}

TEST_F(ModuleLoading, LetsComponentUseServicesOfTheHost) {
  m_host.RegisterBuiltInServices();
  ASSERT_TRUE(m_host.LoadService(serviceName));
  EXPECT_EQ(GetService<IConnectionFactory>()->Initialize({}), 1);
  EXPECT_NE(GetService<WindowsAgentCommon::IStatisticsServer>(), nullptr);
}

/// A dependency of the component that is in its own module.
class ModuleDependency : public ModuleLoading {
 protected:
  ModuleDependency() {
    m_host.RegisterService("IStatisticsServer", FAKE_STATISTICS_MODULE, "FakeStatisticsServer");
    EXPECT_TRUE(m_host.LoadService("IStatisticsServer")) << testing::PrintToString(m_log->Lines());
    ACE_DLL library;
    library.open(FAKE_STATISTICS_MODULE);
    const auto setFlag = reinterpret_cast<void (*)(bool*)>(library.symbol("SetUnloadFlag"));
    if (setFlag) setFlag(&m_isUnloaded);
    EXPECT_NE(setFlag, nullptr);
  }

  bool m_isUnloaded = false;
};

TEST_F(ModuleDependency, IsUnloadedWithItsServiceWhenNobodyNeedsIt) {
  m_host.UnloadService("IStatisticsServer");
  EXPECT_TRUE(m_isUnloaded);
}

TEST_F(ModuleDependency, StaysLoadedAsLongAsTheComponent) {
  ASSERT_TRUE(m_host.LoadService(serviceName));
  ASSERT_EQ(GetService<IConnectionFactory>()->Initialize({}), 1);
  m_host.UnloadService("IStatisticsServer");
  EXPECT_FALSE(m_isUnloaded);
  m_host.UnloadService(serviceName);
  EXPECT_TRUE(m_isUnloaded);
}

}  // namespace
